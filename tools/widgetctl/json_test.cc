#include "tools/widgetctl/json.h"

#include <string>

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_id.pb.h"
#include "rpc/browser/display.pb.h"
#include "rpc/browser/window.pb.h"

namespace widgetctl {
namespace {

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(Json, ReadsBothNumbersAndStringsAs64Bits) {
  BrowserId id;
  ASSERT_TRUE(FromJson(R"({"value": 7})", &id).ok());
  EXPECT_EQ(id.value(), 7);
  ASSERT_TRUE(FromJson(R"({"value": "18446744073709551615"})", &id).ok());
  EXPECT_EQ(id.value(), 18446744073709551615u);
}

TEST(Json, ReplacesWhatTheMessageHeld) {
  BrowserId id;
  id.set_value(7);
  ASSERT_TRUE(FromJson("{}", &id).ok());
  EXPECT_EQ(id.value(), 0);
}

TEST(Json, TellsWhereTheTextIsWrong) {
  BrowserId id;
  const absl::Status status = FromJson(R"({"value" 7})", &id);
  EXPECT_TRUE(absl::IsInvalidArgument(status));
  // Some releases of protobuf mark the place with ^, others give line and
  // column.
  EXPECT_THAT(status.message(), AnyOf(HasSubstr("^"), HasSubstr("near 1:")));
}

TEST(Json, TellsWhichFieldIsUnknown) {
  BrowserId id;
  EXPECT_THAT(FromJson(R"({"valeu": 7})", &id).message(), HasSubstr("valeu"));
}

// Releases of protobuf spell the field as in the proto or as in JSON. Newer
// ones name only the value if that is of an enum.
TEST(Json, TellsWhichFieldHasAWrongValue) {
  rpc::Display display;
  EXPECT_THAT(FromJson(R"({"rotationDeg": "much"})", &display).message(),
              AnyOf(HasSubstr("rotation_deg"), HasSubstr("rotationDeg")));
  rpc::AttachRequest request;
  EXPECT_THAT(FromJson(R"({"renderingMode": "LARGE"})", &request).message(),
              AnyOf(HasSubstr("rendering_mode"),
                    HasSubstr("unknown enum value: 'LARGE'")));
}

TEST(Json, TellsWhatItWasToBe) {
  BrowserId id;
  EXPECT_TRUE(ReadJson("the key of Show", "{}", &id).ok());
  const absl::Status status =
      ReadJson("the key of Show", R"({"valeu": 7})", &id);
  EXPECT_THAT(
      std::string(status.message()),
      AllOf(StartsWith("the key of Show is not valid JSON for BrowserId: "),
            HasSubstr("valeu")));
}

TEST(Json, IsWrittenOnOneLineInLowerCamelCaseWithoutDefaults) {
  rpc::AttachRequest request;
  request.mutable_browser_id()->set_value(7);
  request.mutable_bounds()->set_x(0);
  request.set_rendering_mode(rpc::RENDERING_MODE_WINDOWED);
  EXPECT_EQ(ToJson(request),
            R"({"browserId":{"value":"7"},)"
            R"("renderingMode":"RENDERING_MODE_WINDOWED","bounds":{}})");
}

}  // namespace
}  // namespace widgetctl
