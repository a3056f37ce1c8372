// The folder in which an engine keeps cookies and the like.

#ifndef ENGINES_CHROMIUM_PROFILE_H_
#define ENGINES_CHROMIUM_PROFILE_H_

#include <string>

#include "absl/status/statusor.h"

#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace chromium {

// Keeps a profile for this process alone until the descriptor is closed: two
// engines would spoil each other's files. Makes the folder if it is not there,
// so that the engine can write to it. An error says what is wrong with it, or
// that another process has it. An empty path is no profile, and no lock.
absl::StatusOr<orvane::OwnedDescriptor> LockProfile(const std::string& folder);

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_PROFILE_H_
