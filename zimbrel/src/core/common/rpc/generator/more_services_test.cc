// Service code of a proto with one service, linked with the message code of a
// proto that has the same name but two services.

#include <csignal>

#include "empty_service/empty_service.rpc.h"
#include "gtest/gtest.h"

namespace testdata {
namespace {

bool Trapped(int status) {
  return ::testing::KilledBySignal(SIGILL)(status) ||
         ::testing::KilledBySignal(SIGTRAP)(status);
}

TEST(MoreServicesThanGeneratedDeathTest, TheFirstCallOfDescriptorTraps) {
  EXPECT_EXIT(EmptyService::descriptor(), Trapped, "");
}

TEST(MoreServicesThanGeneratedDeathTest, TheFirstCallOfGetDescriptorTraps) {
  EmptyService service;
  EXPECT_EXIT(service.GetDescriptor(), Trapped, "");
}

}  // namespace
}  // namespace testdata
