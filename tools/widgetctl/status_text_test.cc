#include "tools/widgetctl/status_text.h"

#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace widgetctl {
namespace {

using rpc::transport::ServerStatus;
using ::testing::HasSubstr;
using ::testing::Lt;
using ::testing::Not;
using ::testing::SizeIs;

TEST(StatusText, IsBoundedWhateverTheServerTells) {
  ServerStatus status;
  for (int i = 0; i < 100000; ++i) {
    status.add_connections()->set_service(std::string(i % 2000, 's'));
    status.add_budgets();
    status.add_refusals();
  }
  const std::string text = StatusInWords(status);
  EXPECT_THAT(text, SizeIs(Lt(50000)));
  EXPECT_THAT(text, HasSubstr("and 99900 more"));
}

TEST(StatusText, IsNotObeyedByATerminal) {
  ServerStatus status;
  status.add_services("\x1b[2J");
  status.add_connections()->set_service("\x1b[2J");
  status.add_budgets()->set_limit("\x1b[2J");
  status.add_refusals()->set_latest_reason("\x1b[2J");
  EXPECT_THAT(StatusInWords(status), Not(HasSubstr("\x1b")));
}

}  // namespace
}  // namespace widgetctl
