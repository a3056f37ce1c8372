// For programs that use Xlib: include this after its headers and before ours.
// Xlib defines macros with everyday names, such as Status and None, which break
// the headers of Abseil and protobuf. This header replaces them by types and
// constants of the same meaning.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_XLIB_NAMES_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_XLIB_NAMES_H_

#include <X11/Xlib.h>

#undef Status
#undef Bool
#undef True
#undef False
#undef None
#undef Success
#undef Always

using Status = int;
using Bool = int;
inline constexpr Bool True = 1;
inline constexpr Bool False = 0;
inline constexpr long None = 0;
inline constexpr int Success = 0;
inline constexpr int Always = 2;

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_XLIB_NAMES_H_
