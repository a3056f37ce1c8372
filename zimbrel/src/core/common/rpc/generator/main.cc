// The protoc plugin protoc-gen-orvane.

#include <iostream>
#include <string_view>

#include "google/protobuf/compiler/plugin.h"

#include "zimbrel/src/core/common/rpc/generator/generator.h"
#include "zimbrel/src/core/common/rpc/version.h"

int main(int argc, char** argv) {
  // For users; protoc passes no arguments.
  if (argc == 2 && std::string_view(argv[1]) == "--version") {
    std::cout << "protoc-gen-orvane " << orvane::kVersion << std::endl;
    return 0;
  }
  const orvane::generator::Generator generator;
  return google::protobuf::compiler::PluginMain(argc, argv, &generator);
}
