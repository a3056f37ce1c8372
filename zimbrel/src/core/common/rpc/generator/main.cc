// The protoc plugin protoc-gen-orvane.

#include "google/protobuf/compiler/plugin.h"

#include "zimbrel/src/core/common/rpc/generator/generator.h"

int main(int argc, char** argv) {
  const orvane::generator::Generator generator;
  return google::protobuf::compiler::PluginMain(argc, argv, &generator);
}
