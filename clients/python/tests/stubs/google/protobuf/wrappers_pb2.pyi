from google.protobuf.message import Message

class BoolValue(Message):
    value: bool
