// Compiled before all else where g++ builds for its thread sanitizer. protobuf
// 3.21 gives its maps two more members when it sees that, of which the
// installed library knows nothing. The C++ library and Abseil, which should see
// it, are included first.

#include <cstddef>

#if __has_include("absl/base/attributes.h")
#include "absl/base/attributes.h"
#endif

#undef __SANITIZE_THREAD__
