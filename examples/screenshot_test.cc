#include <png.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace {

using ::orvane::testing::ChildProcess;
using ::testing::HasSubstr;

class ScreenshotTest : public ::testing::Test {
 protected:
  ScreenshotTest() : server_({WIDGET_SERVER, "--socket", socket_}) {
    EXPECT_EQ(server_.ReadLine(), "widget_server listens at " + socket_);
  }

  ChildProcess::Result Run(std::vector<std::string> arguments) const {
    std::vector<std::string> command = {SCREENSHOT, "--socket", socket_};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return ChildProcess(std::move(command)).Wait();
  }

  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path() + "/widget.sock";
  const std::string file_ = folder_.path() + "/page.png";
  ChildProcess server_;
};

TEST_F(ScreenshotTest, SavesThePictureAtTheSizeThatIsAskedFor) {
  const ChildProcess::Result result =
      Run({"--browser", "2", "--width", "320", "--height", "200", file_});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  ASSERT_NE(png_image_begin_read_from_file(&image, file_.c_str()), 0);
  EXPECT_EQ(image.width, 320u);
  EXPECT_EQ(image.height, 200u);
  png_image_free(&image);
}

TEST_F(ScreenshotTest, LeavesTheBrowserToTheNext) {
  EXPECT_EQ(Run({file_}).exit_code, 0);
  EXPECT_EQ(Run({file_}).exit_code, 0);
}

TEST_F(ScreenshotTest, DoesNotWaitLongerThanItMay) {
  server_.Signal(SIGSTOP);
  const ChildProcess::Result result = Run({"--timeout", "0.1", file_});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors,
              HasSubstr("browser 1 has sent no picture within 100ms"));
}

TEST_F(ScreenshotTest, TellsWhatIsWrong) {
  const ChildProcess::Result unknown = Run({"--browser", "7", file_});
  EXPECT_EQ(unknown.exit_code, 1);
  EXPECT_THAT(unknown.errors, HasSubstr("browser 7 does not exist"));
  const ChildProcess::Result folder = Run({folder_.path()});
  EXPECT_EQ(folder.exit_code, 1);
  EXPECT_THAT(folder.errors, HasSubstr(folder_.path()));
  EXPECT_EQ(Run({}).exit_code, 2);
  EXPECT_EQ(Run({"--width", "0", file_}).exit_code, 2);
}

}  // namespace
