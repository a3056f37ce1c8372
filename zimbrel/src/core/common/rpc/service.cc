#include "zimbrel/src/core/common/rpc/service.h"

namespace orvane {

Service::~Service() = default;

}  // namespace orvane
