from collections.abc import Mapping, Sequence
from typing import Any

class FileDescriptor:
    services_by_name: Mapping[str, ServiceDescriptor]

class Descriptor:
    name: str
    full_name: str
    fields_by_name: Mapping[str, FieldDescriptor]

class FieldDescriptor:
    message_type: Any

class EnumDescriptor: ...

class MethodDescriptor:
    name: str
    index: int
    containing_service: ServiceDescriptor
    input_type: Descriptor
    output_type: Descriptor
    def GetOptions(self) -> Any: ...

class ServiceDescriptor:
    full_name: str
    methods: Sequence[MethodDescriptor]
    methods_by_name: Mapping[str, MethodDescriptor]
    def CopyToProto(self, proto: Any) -> None: ...
