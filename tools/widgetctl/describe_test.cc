#include "tools/widgetctl/describe.h"

#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"
#include "gmock/gmock.h"
#include "google/protobuf/descriptor.pb.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"

namespace widgetctl {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

// A generated descriptor, so it has no comments.
const google::protobuf::ServiceDescriptor& Service() {
  return *rpc::BrowserWidgetRpc::descriptor();
}

std::string Described(absl::string_view name) {
  const absl::StatusOr<std::string> text = DescribeNamed(Service(), name);
  EXPECT_TRUE(text.ok()) << text.status();
  return text.ok() ? *text : "";
}

int Count(absl::string_view text, absl::string_view part) {
  return static_cast<int>(
             std::vector<std::string>(absl::StrSplit(text, part)).size()) -
         1;
}

TEST(ListMethods, HasALineForEachMethodInOrder) {
  const std::vector<std::string> lines =
      absl::StrSplit(ListMethods(Service()), '\n', absl::SkipEmpty());
  ASSERT_EQ(lines.size(), 52);
  for (int i = 0; i < 52; ++i) {
    EXPECT_THAT(lines[i], HasSubstr(absl::StrCat(
                              i, "  ", Service().method(i)->name(), " ")));
  }
}

TEST(ListMethods, AlignsItsColumns) {
  const std::vector<std::string> lines =
      absl::StrSplit(ListMethods(Service()), '\n', absl::SkipEmpty());
  EXPECT_EQ(lines[5],
            " 5  Show                         unary            "
            "BrowserId -> google.protobuf.Empty");
  EXPECT_EQ(lines[40],
            "40  WhenCursorChanged            event stream     "
            "rpc.EventSubscription -> rpc.CursorChanged");
  EXPECT_EQ(lines[51],
            "51  OnAccessibilityRequestFocus  callback stream  "
            "rpc.AccessibilityRequestFocus -> rpc.AccessibilityRequestFocus");
}

TEST(DescribeService, HasTheSignatureOfEveryMethod) {
  const std::string text = DescribeService(Service());
  EXPECT_THAT(text, StartsWith("service rpc.BrowserWidgetRpc {\n"));
  EXPECT_EQ(Count(text, "  rpc "), 52);
  EXPECT_THAT(text, HasSubstr("  rpc OnTakeFocus(stream rpc.TakeFocus) returns "
                              "(stream rpc.TakeFocus)\n"));
}

TEST(Describe, TellsAMethodAndAllTypesThatItNeeds) {
  EXPECT_EQ(Described("GetChromiumWindowHandle"),
            R"(rpc GetChromiumWindowHandle(BrowserId) returns (rpc.WindowHandle)

message BrowserId {
  value: uint64
}

message rpc.WindowHandle {
  platform: rpc.Platform
  handle: uint64
}

enum rpc.Platform {
  PLATFORM_UNSPECIFIED = 0
  PLATFORM_WINDOWS = 1
  PLATFORM_MACOS = 2
  PLATFORM_X11 = 3
  PLATFORM_WAYLAND = 4
}
)");
}

TEST(Describe, GoesThroughNestedMessagesAndTellsEachOnce) {
  const std::string text = Described("ForwardDragEnter");
  EXPECT_EQ(Count(text, "message rpc.PointDip {"), 1);
  EXPECT_EQ(Count(text, "message rpc.DragFile {"), 1);
}

TEST(Describe, NamesFieldsAsInJsonAndMarksListsAndOptionals) {
  const std::string text = Described("rpc.DragEnterRequest");
  EXPECT_THAT(text, HasSubstr("\n  allowedOperations: uint32\n"));
  EXPECT_THAT(text, HasSubstr("\n  items: [rpc.DragItem]\n"));
  EXPECT_THAT(text, HasSubstr("\n  sizeBytes: optional uint64\n"));
}

TEST(Describe, KeepsTheMembersOfAOneofTogether) {
  EXPECT_THAT(Described("DragItem"), StartsWith(R"(message rpc.DragItem {
  oneof content {
    text: rpc.DragText
    file: rpc.DragFile
    binary: rpc.DragBytes
  }
}
)"));
}

TEST(Describe, TakesTypesWithAndWithoutTheirPackage) {
  EXPECT_EQ(Described("SizeDip"), Described("rpc.SizeDip"));
  EXPECT_THAT(Described("BrowserId"), StartsWith("message BrowserId {"));
  EXPECT_EQ(Described("google.protobuf.Empty"),
            "message google.protobuf.Empty {\n}\n");
}

TEST(Describe, KnowsEnumsThatNoFieldHas) {
  EXPECT_THAT(Described("ModifierFlag"),
              HasSubstr("\n  MODIFIER_FLAG_SHIFT = 8\n"));
}

TEST(Describe, NamesTheNearestMethodsAndMessagesOfAnUnknownName) {
  EXPECT_EQ(
      DescribeNamed(Service(), "AttachRequst").status(),
      absl::NotFoundError("no method, message or enum AttachRequst in "
                          "rpc.BrowserWidgetRpc; did you mean AttachRequest or "
                          "AttachResult?"));
}

// The descriptor of a file whose comments were kept.
TEST(Describe, SetsCommentsAboveWhatTheyAreAbout) {
  google::protobuf::FileDescriptorProto file;
  file.set_name("light.proto");
  auto* const light = file.add_message_type();
  light->set_name("Light");
  for (const char* const name : {"on", "dimmed"}) {
    auto* const field = light->add_field();
    field->set_name(name);
    field->set_number(light->field_size());
    field->set_type(google::protobuf::FieldDescriptorProto::TYPE_BOOL);
    field->set_label(google::protobuf::FieldDescriptorProto::LABEL_OPTIONAL);
  }
  file.set_syntax("proto3");
  file.add_service()->set_name("Lamp");
  auto* const locations = file.mutable_source_code_info();
  const auto comment = [&](std::vector<int> path, const char* leading,
                           const char* trailing) {
    auto* const location = locations->add_location();
    location->mutable_path()->Add(path.begin(), path.end());
    for (const int position : {0, 0, 1}) location->add_span(position);
    location->set_leading_comments(leading);
    location->set_trailing_comments(trailing);
  };
  comment({4, 0}, " A lamp's light.\n\n In two lines.\n", "");
  comment({4, 0, 2, 1}, "", " Half as bright.\n");
  google::protobuf::DescriptorPool pool;
  const auto* const built = pool.BuildFile(file);
  ASSERT_NE(built, nullptr);

  const absl::StatusOr<std::string> text =
      DescribeNamed(*built->service(0), "Light");
  ASSERT_TRUE(text.ok()) << text.status();
  EXPECT_EQ(*text, R"(// A lamp's light.
//
// In two lines.
message Light {
  on: bool

  // Half as bright.
  dimmed: bool
}
)");
}

}  // namespace
}  // namespace widgetctl
