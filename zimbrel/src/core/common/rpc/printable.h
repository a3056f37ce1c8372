// Text of others in logs and on terminals.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_PRINTABLE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_PRINTABLE_H_

#include <cstddef>
#include <string>

#include "absl/strings/string_view.h"

namespace orvane {

// Makes text that somebody else has written, such as a peer's error text, fit
// to be logged or printed: it stays on one line, and a terminal shows it and
// does not obey it. Control characters, what changes the direction of the text
// around it, and bytes that are not UTF-8 are escaped like in C. Of a text that
// is longer than `max_bytes`, the beginning is returned, followed by "...".
// Text that has been made printable once is not changed by a second time.
std::string Printable(absl::string_view text, std::size_t max_bytes = 2000);

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_PRINTABLE_H_
