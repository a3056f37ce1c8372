// The version of the runtime, its programs, its package and generated code.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_VERSION_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_VERSION_H_

#include <string_view>

namespace orvane {

// Written here and nowhere else: CMake reads this line, and protoc-gen-orvane
// was compiled with it. Generated code compiles with this very version only,
// since it uses parts of the runtime that promise nothing to anybody else.
inline constexpr std::string_view kVersion = "0.2.0";

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_VERSION_H_
