// Service code of a proto with one service, linked with the message code of a
// proto that has the same name but no services.

#include "empty_service/empty_service.rpc.h"
#include "gtest/gtest.h"

namespace testdata {
namespace {

TEST(FewerServicesThanGenerated, TheDescriptorIsNull) {
  EXPECT_EQ(EmptyService::descriptor(), nullptr);
  EXPECT_EQ(EmptyService().GetDescriptor(), nullptr);
}

}  // namespace
}  // namespace testdata
