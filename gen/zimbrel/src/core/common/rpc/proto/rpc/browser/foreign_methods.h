// Method descriptors of a service that is not the browser widget's, for tests.

#ifndef GEN_ZIMBREL_SRC_CORE_COMMON_RPC_PROTO_RPC_BROWSER_FOREIGN_METHODS_H_
#define GEN_ZIMBREL_SRC_CORE_COMMON_RPC_PROTO_RPC_BROWSER_FOREIGN_METHODS_H_

#include <string>

#include "google/protobuf/descriptor.h"
#include "google/protobuf/descriptor.pb.h"

namespace rpc {

// A service of so many methods that it has indices which the widget lacks.
class ForeignMethods {
 public:
  ForeignMethods() {
    google::protobuf::FileDescriptorProto file;
    file.set_name("foreign.proto");
    file.add_message_type()->set_name("Nothing");
    auto* service = file.add_service();
    service->set_name("Foreign");
    for (int i = 0; i < 100; ++i) {
      auto* method = service->add_method();
      method->set_name("Method" + std::to_string(i));
      method->set_input_type("Nothing");
      method->set_output_type("Nothing");
    }
    service_ = pool_.BuildFile(file)->service(0);
  }

  // Good for the life of this object.
  const google::protobuf::MethodDescriptor* operator[](int index) const {
    return service_->method(index);
  }

 private:
  google::protobuf::DescriptorPool pool_;
  const google::protobuf::ServiceDescriptor* service_;
};

}  // namespace rpc

#endif  // GEN_ZIMBREL_SRC_CORE_COMMON_RPC_PROTO_RPC_BROWSER_FOREIGN_METHODS_H_
