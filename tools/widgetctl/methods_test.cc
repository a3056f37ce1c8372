#include "tools/widgetctl/methods.h"

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/browser/page.rpc.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"

namespace widgetctl {
namespace {

using orvane::MethodKind;

const google::protobuf::ServiceDescriptor& Service() {
  return *rpc::BrowserWidgetRpc::descriptor();
}

TEST(KindName, TellsTheThreeKindsApart) {
  EXPECT_EQ(KindName(*Service().FindMethodByName("Show")), "unary");
  EXPECT_EQ(KindName(*Service().FindMethodByName("WhenCursorChanged")),
            "event stream");
  EXPECT_EQ(KindName(*Service().FindMethodByName("OnTakeFocus")),
            "callback stream");
}

TEST(ServiceWithMethod, IsTheOneThatHasIt) {
  const google::protobuf::ServiceDescriptor* const services[] = {
      &Service(), rpc::PageRpc::descriptor()};
  EXPECT_EQ(ServiceWithMethod(services, "Show").name(), "BrowserWidgetRpc");
  EXPECT_EQ(ServiceWithMethod(services, "GoBack").name(), "PageRpc");
}

TEST(ServiceWithMethod, IsTheFirstIfNoneHasIt) {
  const google::protobuf::ServiceDescriptor* const services[] = {
      rpc::PageRpc::descriptor(), &Service()};
  EXPECT_EQ(ServiceWithMethod(services, "Shwo").name(), "PageRpc");
}

TEST(FindMethod, FindsAMethodByItsName) {
  const auto found = FindMethod(Service(), "Detach");
  ASSERT_TRUE(found.ok()) << found.status();
  EXPECT_EQ((*found)->index(), 3);
}

TEST(FindMethod, NamesTheNearestMethodsOfAnUnknownName) {
  const auto found = FindMethod(Service(), "Shwo");
  EXPECT_EQ(found.status(),
            absl::NotFoundError(
                "no method Shwo in rpc.BrowserWidgetRpc; did you mean Show?"));
}

TEST(FindMethodOfKind, FindsOneOfThatKind) {
  const auto found = FindMethodOfKind(Service(), "OnTakeFocus",
                                      MethodKind::kCallbackStream, "served");
  ASSERT_TRUE(found.ok()) << found.status();
  EXPECT_EQ((*found)->name(), "OnTakeFocus");
}

TEST(FindMethodOfKind, TellsWhichKindAnotherIsOf) {
  EXPECT_EQ(
      FindMethodOfKind(Service(), "Show", MethodKind::kEventStream, "watched")
          .status(),
      absl::InvalidArgumentError("Show cannot be watched: it is of kind "
                                 "unary, not event stream"));
}

TEST(FindMethodOfKind, NamesTheNearestMethodsOfAnUnknownName) {
  EXPECT_EQ(FindMethodOfKind(Service(), "Shwo", MethodKind::kUnary, "called")
                .status(),
            FindMethod(Service(), "Shwo").status());
}

TEST(DidYouMean, HasNothingToSayIfNothingIsNear) {
  EXPECT_EQ(DidYouMean("Teleport", {"Show", "Hide"}), "");
}

TEST(DidYouMean, PutsTheNearestFirst) {
  EXPECT_EQ(DidYouMean("Attachedd", {"Attach", "Attached", "Hide"}),
            "; did you mean Attached or Attach?");
}

TEST(DidYouMean, IgnoresCase) {
  EXPECT_EQ(DidYouMean("setdpiaware", {"SetDpiAware", "SetDisplay"}),
            "; did you mean SetDpiAware?");
}

TEST(DidYouMean, KnowsAPartOfAName) {
  EXPECT_EQ(DidYouMean("Wheel", {"ForwardMouseWheel", "ForwardMouseMove"}),
            "; did you mean ForwardMouseWheel?");
}

TEST(DidYouMean, NamesThreeAtMost) {
  EXPECT_EQ(DidYouMean("Touch", {"TouchA", "TouchB", "TouchC", "TouchD"}),
            "; did you mean TouchA, TouchB or TouchC?");
}

}  // namespace
}  // namespace widgetctl
