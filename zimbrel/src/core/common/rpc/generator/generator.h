// From proto files to service classes.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_GENERATOR_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_GENERATOR_H_

#include <cstdint>
#include <string>
#include <vector>

#include "google/protobuf/compiler/code_generator.h"

namespace orvane::generator {

// Writes for each DIR/x.proto that declares services their classes, into
// DIR/x.rpc.h and DIR/x.rpc.cc, and their clients, into DIR/x.client.h and
// DIR/x.client.cc. Nothing for other protos. The output depends on the proto,
// its imports and the parameter alone.
//
// The parameter is a list of options, with commas between:
//   log_path_prefix=PATH  where the output lies in its tree, for the source
//                         path that fatal log entries name;
//   language=python       writes Python instead: clients into DIR/x_client.py.
//                         The messages are protoc's own --python_out.
//
// Either everything is written, or nothing is and the error lists all that is
// wrong, one finding on each line.
class Generator : public google::protobuf::compiler::CodeGenerator {
 public:
  bool Generate(const google::protobuf::FileDescriptor* file,
                const std::string& parameter,
                google::protobuf::compiler::GeneratorContext* context,
                std::string* error) const override;
  bool GenerateAll(
      const std::vector<const google::protobuf::FileDescriptor*>& files,
      const std::string& parameter,
      google::protobuf::compiler::GeneratorContext* context,
      std::string* error) const override;
  std::uint64_t GetSupportedFeatures() const override;
};

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_GENERATOR_H_
