// The protoc plugin protoc-gen-orvane.

#include <iostream>
#include <string_view>

#include "google/protobuf/compiler/plugin.h"

#include "zimbrel/src/core/common/rpc/generator/generator.h"
#include "zimbrel/src/core/common/rpc/version.h"

namespace {

constexpr std::string_view kHelp =
    "Usage: protoc --orvane_out=[PARAMETER,...:]DIR PROTO...\n"
    "A plugin of protoc, which runs it if it is in $PATH: makes a class to\n"
    "derive from (NAME.rpc.h and .cc) and a client (NAME.client.h and .cc) of\n"
    "each service in PROTO, next to what --cpp_out writes.\n"
    "\n"
    "Parameters:\n"
    "  language=python       write Python clients instead (NAME_client.py), next\n"
    "                        to what --python_out writes\n"
    "  log_path_prefix=PATH  where the output lies in its tree, for the path\n"
    "                        that fatal log entries name\n"
    "\n"
    "Run by itself:\n"
    "  --help                print this and exit\n"
    "  --version             print the version and exit\n";

}  // namespace

int main(int argc, char** argv) {
  // For users; protoc passes no arguments.
  const std::string_view option = argc == 2 ? argv[1] : "";
  if (option == "--version") {
    std::cout << "protoc-gen-orvane " << orvane::kVersion << std::endl;
    return 0;
  }
  if (option == "--help") {
    std::cout << kHelp;
    return 0;
  }
  const orvane::generator::Generator generator;
  return google::protobuf::compiler::PluginMain(argc, argv, &generator);
}
