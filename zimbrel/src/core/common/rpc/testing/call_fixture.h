// For tests: calls to a scripted host, listed by hand or made by Call, and a
// record of how they ended.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CALL_FIXTURE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CALL_FIXTURE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/callback_stream.h"
#include "zimbrel/src/core/common/rpc/testing/scripted_host.h"

namespace orvane::testing {

class CallFixture : public CallbackStreamFixture {
 protected:
  using Stream = CallbackStream<rpc::CreateWebDialog>;
  using Host = ScriptedHost<rpc::CreateWebDialog>;

  // The stream that serves `browser`, or null.
  static const Stream* Serving(const BrowserId& browser) {
    const auto entry = Stream::stream_map_.find(&browser);
    return entry == Stream::stream_map_.end() ? nullptr : entry->second;
  }

  // Lists a call by hand. Its callables tell `ends` and then run `then`.
  void List(Host& at, const BrowserId& browser, std::int64_t id,
            std::function<void()> then = nullptr) {
    at.stream().CallsOf(browser).second.emplace(
        id, Stream::StreamCall{
                [this, id, then](rpc::CreateWebDialog& reply) {
                  ends.push_back(
                      absl::StrCat(id, " answered ", reply.response().text()));
                  if (then) then();
                },
                [this, id, then](StreamCallFailure why) {
                  ends.push_back(absl::StrCat(
                      id, why == StreamCallFailure::kCancelled ? " cancelled"
                                                               : " failed"));
                  if (then) then();
                }});
  }

  // The ids of the calls that wait under `browser`.
  static std::vector<std::int64_t> Pending(Host& at, const BrowserId& browser) {
    std::vector<std::int64_t> ids;
    const auto entry = at.stream().pending_calls_.find(&browser);
    if (entry == at.stream().pending_calls_.end()) return ids;
    for (const auto& [id, call] : entry->second) ids.push_back(id);
    return ids;
  }

  // Calls. The continuation tells `ends` and then runs `then`.
  CallHandle Ask(const BrowserId& browser, const std::string& question,
                 std::function<void()> then = nullptr,
                 CallOptions options = {}) {
    rpc::CreateWebDialogCall dialog;
    dialog.mutable_prompt()->set_message(question);
    return Call<rpc::CreateWebDialog>(
        browser, std::move(dialog),
        [this, question,
         then](const absl::StatusOr<rpc::CreateWebDialogResponse>& answer) {
          ends.push_back(answer.ok()
                             ? absl::StrCat(question, " ", answer->text())
                             : absl::StrCat(question, " ",
                                            absl::StatusCodeToString(
                                                answer.status().code()),
                                            ": ", answer.status().message()));
          if (then) then();
        },
        options);
  }

  static rpc::CreateWebDialogResponse Text(const std::string& text) {
    rpc::CreateWebDialogResponse response;
    response.set_text(text);
    return response;
  }

  void RunUntilEnds(std::size_t count) {
    EXPECT_TRUE(loop.RunUntil([this, count] { return ends.size() >= count; }));
  }

  const BrowserId kBrowser = Browser(7);
  const BrowserId kOther = Browser(8);
  std::vector<std::string> ends;
  Host host{&loop, &service};
};

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CALL_FIXTURE_H_
