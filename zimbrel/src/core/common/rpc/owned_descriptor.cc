#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

#include <unistd.h>

#include <utility>

namespace orvane {

OwnedDescriptor::~OwnedDescriptor() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

int OwnedDescriptor::Release() { return std::exchange(descriptor_, -1); }

}  // namespace orvane
