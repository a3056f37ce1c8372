// What every message type of the widget's callback streams has alike, and what
// it has of its own: the case numbers of its oneof.

#include "zimbrel/src/core/common/rpc/stream/callback_stream.h"

#include <sys/wait.h>

#include <csignal>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/scripted_host.h"

namespace orvane::testing {
namespace {

using ::testing::IsEmpty;

static_assert(rpc::CreateWebDialog::kSubscribe == 2 &&
              rpc::CreateWebDialog::kResponse == 4);
static_assert(rpc::UpdateSurface::kSubscribe == 2 &&
              rpc::UpdateSurface::kResponse == 4);
static_assert(rpc::UpdateLayer::kSubscribe == 2 &&
              rpc::UpdateLayer::kResponse == 4);
static_assert(rpc::ShowDropdown::kSubscribe == 3 &&
              rpc::ShowDropdown::kResponse == 5);
static_assert(rpc::TakeFocus::kSubscribe == 3 &&
              rpc::TakeFocus::kResponse == 5);
static_assert(rpc::AccessibilityRequestFocus::kSubscribe == 3 &&
              rpc::AccessibilityRequestFocus::kResponse == 5);

template <typename T>
class CallbackStreamOfTest : public CallbackStreamFixture {
 protected:
  // A payload in bytes: browser 7, and one field.
  static std::string Bytes(int number, int wire_type, char value) {
    return {'\x0a',
            '\x02',
            '\x08',
            '\x07',
            static_cast<char>(number << 3 | wire_type),
            value};
  }
  static std::string Subscribe() { return Bytes(T::kSubscribe, 0, 1); }
  static std::string Unsubscribe() { return Bytes(T::kSubscribe, 0, 0); }
  static std::string EmptyResponse() { return Bytes(T::kResponse, 2, 0); }
  static std::string EmptyCall() { return Bytes(T::kCall, 2, 0); }

  ScriptedHost<T> host{&this->loop, &this->service};
};

template <typename T>
class CallbackStreamOfDeathTest : public CallbackStreamOfTest<T> {
 protected:
  // Dies as from a trap.
  static bool Trapped(int status) {
    return WIFSIGNALED(status) &&
           (WTERMSIG(status) == SIGILL || WTERMSIG(status) == SIGTRAP);
  }
};

using Types = ::testing::Types<rpc::CreateWebDialog, rpc::UpdateSurface,
                               rpc::UpdateLayer, rpc::ShowDropdown,
                               rpc::TakeFocus, rpc::AccessibilityRequestFocus>;
TYPED_TEST_SUITE(CallbackStreamOfTest, Types);
TYPED_TEST_SUITE(CallbackStreamOfDeathTest, Types);

TYPED_TEST(CallbackStreamOfTest, SubscribesAndUnsubscribesByItsOwnCaseNumber) {
  this->host.SendPayload(this->Subscribe());
  EXPECT_EQ(CallbackStream<TypeParam>::stream_map_.size(), 1u);
  this->host.SendPayload(this->Unsubscribe());
  EXPECT_THAT(CallbackStream<TypeParam>::stream_map_, IsEmpty());
}

TYPED_TEST(CallbackStreamOfTest, DeliversResponsesByItsOwnCaseNumber) {
  int answers = 0;
  this->host.stream()
      .CallsOf(Browser(7))
      .second.emplace(3, typename CallbackStream<TypeParam>::StreamCall{
                             [&](TypeParam&) { ++answers; },
                             [](StreamCallFailure) { FAIL(); }});
  this->host.SendPayload(this->EmptyResponse(), 3);
  EXPECT_EQ(answers, 1);
}

TYPED_TEST(CallbackStreamOfDeathTest,
           AFrameWithoutACaseEndsTheProcessWithoutAWord) {
  EXPECT_EXIT(this->host.SendPayload(""), this->Trapped, IsEmpty());
}

TYPED_TEST(CallbackStreamOfDeathTest,
           AFrameWithTheWidgetsCaseEndsTheProcessWithoutAWord) {
  EXPECT_EXIT(this->host.SendPayload(this->EmptyCall()), this->Trapped,
              IsEmpty());
}

TYPED_TEST(CallbackStreamOfDeathTest,
           AFrameCutShortBeforeItsCaseEndsTheProcessWithoutAWord) {
  EXPECT_EXIT(this->host.SendPayload(this->Subscribe().substr(0, 4)),
              this->Trapped, IsEmpty());
}

}  // namespace
}  // namespace orvane::testing
