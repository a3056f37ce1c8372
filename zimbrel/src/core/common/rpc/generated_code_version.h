// What holds generated code and the runtime together.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATED_CODE_VERSION_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATED_CODE_VERSION_H_

namespace orvane {

// What generated code asks of the runtime. It grows when code that was
// generated before no longer fits, so that it fails to compile with a sentence.
inline constexpr int kGeneratedCodeVersion = 2;

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATED_CODE_VERSION_H_
