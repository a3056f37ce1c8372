// g++ includes this file before all others when it builds for the thread
// sanitizer. protobuf 3.21 adds two members to its maps if it sees that
// sanitizer, but the installed library is compiled without them. The C++
// library and Abseil should see the sanitizer, so they are included first.

#include <cstddef>

#if __has_include("absl/base/attributes.h")
#include "absl/base/attributes.h"
#endif

#undef __SANITIZE_THREAD__
