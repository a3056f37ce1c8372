#include "tools/widgetctl/documented.h"

#include "absl/log/log.h"
#include "google/protobuf/descriptor.pb.h"

#include "tools/widgetctl/documented_protos.h"

namespace widgetctl {

using google::protobuf::DescriptorPool;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileDescriptorSet;
using google::protobuf::ServiceDescriptor;

namespace {

const DescriptorPool& DocumentedPool() {
  static const DescriptorPool* const pool = [] {
    FileDescriptorSet protos;
    if (!protos.ParseFromArray(kDocumentedProtos, sizeof kDocumentedProtos)) {
      LOG(FATAL) << "the protos in this program are damaged";
    }
    auto* const built = new DescriptorPool;
    // Each file comes after those that it imports.
    for (const FileDescriptorProto& file : protos.file()) {
      if (built->BuildFile(file) == nullptr) LOG(FATAL) << file.name();
    }
    return built;
  }();
  return *pool;
}

}  // namespace

const ServiceDescriptor& WithComments(const ServiceDescriptor& service) {
  const auto& name = service.full_name();
  const ServiceDescriptor* const documented =
      DocumentedPool().FindServiceByName(name);
  if (documented == nullptr) LOG(FATAL) << name << " is not among the protos";
  return *documented;
}

}  // namespace widgetctl
