from typing import Any

FileDescriptorProto: Any
ServiceDescriptorProto: Any
