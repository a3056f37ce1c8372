// States that a correct transport never produces: each ends the process with an
// entry of its own, which names the generated source and the line.

#include <fstream>
#include <functional>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "absl/log/log_entry.h"
#include "absl/log/log_sink.h"
#include "absl/log/log_sink_registry.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "foreign_methods.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/generator/recorded_call.h"

namespace rpc {
namespace {

using google::protobuf::MethodDescriptor;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kSourcePath[] =
    "gen/zimbrel/src/core/common/rpc/proto/rpc/browser/browser_widget.rpc";
constexpr char kBadIndex[] = "Bad method index; this should never happen.";
constexpr char kStreaming[] =
    "Streaming method can't be called with this call.";
constexpr char kUnary[] = "Cannot open a stream for a non-streaming method.";
constexpr char kNotImplemented[] = "Not implemented.";

constexpr int kUnaryCount = 40;
constexpr int kMethodCount = 52;

const MethodDescriptor* Method(int index) {
  return BrowserWidgetRpc::descriptor()->method(index);
}

std::string CaseOf(int index) { return absl::StrCat("case ", index, ":"); }

// The committed source, searched for the lines of its fatal statements.
class Source {
 public:
  Source() {
    std::ifstream file(GENERATED_SOURCE);
    for (std::string line; std::getline(file, line);) lines_.push_back(line);
  }

  // The line of the first fatal statement below `label` in the definition of
  // `member`. 0 if there is none.
  std::size_t FatalLine(const std::string& member,
                        const std::string& label) const {
    std::size_t i = Find(0, absl::StrCat("BrowserWidgetRpc::", member, "("));
    i = Find(i, label);
    i = Find(i, "LOG(FATAL)");
    return i < lines_.size() ? i + 1 : 0;
  }

 private:
  std::size_t Find(std::size_t from, const std::string& text) const {
    while (from < lines_.size() && !absl::StrContains(lines_[from], text))
      ++from;
    return from;
  }

  std::vector<std::string> lines_;
};

// Tells on stderr where entries come from: what is logged there ordinarily has
// the last part of the path only.
class LocationPrinter final : public absl::LogSink {
 public:
  LocationPrinter() { absl::AddLogSink(this); }
  ~LocationPrinter() override { absl::RemoveLogSink(this); }

  void Send(const absl::LogEntry& entry) override {
    std::cerr << Location(entry.source_filename(),
                          static_cast<std::size_t>(entry.source_line()))
              << entry.text_message() << "$" << std::endl;
  }

  static std::string Location(absl::string_view path, std::size_t line) {
    return absl::StrCat("<", path, ":", line, "> ");
  }
};

class BrowserWidgetDeathTest : public ::testing::Test {
 protected:
  // Expects `action` to die at the fatal statement below `label` in `member`.
  template <typename Action>
  void ExpectFatal(const Action& action, const std::string& text,
                   const std::string& member, const std::string& label) {
    SCOPED_TRACE(absl::StrCat(member, " ", label));
    const std::size_t line = source_.FatalLine(member, label);
    ASSERT_NE(line, 0u) << "no such statement in " << GENERATED_SOURCE;
    EXPECT_TRUE(lines_.insert(line).second) << "a line of two states";
    EXPECT_DEATH(
        {
          const LocationPrinter printer;
          action();
        },
        HasSubstr(LocationPrinter::Location(kSourcePath, line) + text + "$"));
  }

  void Open(const MethodDescriptor* method) {
    service_.OpenStream(method, orvane::StreamChannel(nullptr));
  }

  BrowserWidgetRpc service_;
  const ForeignMethods foreign_;
  const Source source_;
  std::set<std::size_t> lines_;  // Of the statements that a test has seen.
};

TEST_F(BrowserWidgetDeathTest, AnIndexBeyondTheMethodsIsFatalEverywhere) {
  orvane::generator::RecordedCall call;
  const MethodDescriptor* const method = foreign_[kMethodCount];
  ExpectFatal([&] { service_.GetRequestPrototype(method); }, kBadIndex,
              "GetRequestPrototype", "default:");
  ExpectFatal([&] { service_.GetResponsePrototype(method); }, kBadIndex,
              "GetResponsePrototype", "default:");
  ExpectFatal(
      [&] { service_.CallMethod(method, &call, nullptr, nullptr, &call); },
      kBadIndex, "RefuseCall", "default:");
  ExpectFatal([&] { Open(method); }, kBadIndex, "OpenStream", "default:");
}

TEST_F(BrowserWidgetDeathTest, AnIndexFarBeyondTheMethodsIsNoBetter) {
  const MethodDescriptor* const method = foreign_[99];
  EXPECT_DEATH(service_.GetRequestPrototype(method), kBadIndex);
  EXPECT_DEATH(service_.GetResponsePrototype(method), kBadIndex);
  EXPECT_DEATH(service_.CallMethod(method, nullptr, nullptr, nullptr, nullptr),
               kBadIndex);
  EXPECT_DEATH(Open(method), kBadIndex);
}

TEST_F(BrowserWidgetDeathTest, EachStreamingMethodRefusesToBeCalled) {
  orvane::generator::RecordedCall call;
  for (int i = kUnaryCount; i < kMethodCount; ++i) {
    ExpectFatal(
        [&] { service_.CallMethod(Method(i), &call, nullptr, nullptr, &call); },
        kStreaming, "RefuseCall", CaseOf(i));
  }
}

// Whatever it is told, it says.
class Talkative final : public google::protobuf::RpcController,
                        public google::protobuf::Closure {
 public:
  void Run() override { std::cerr << "done ran\n"; }
  void SetFailed(const std::string&) override { std::cerr << "told\n"; }
  bool Failed() const override { return false; }
  std::string ErrorText() const override { return ""; }
  void Reset() override {}
  void StartCancel() override {}
  bool IsCanceled() const override { return false; }
  void NotifyOnCancel(google::protobuf::Closure*) override {}
};

class TalkativeWidget final : public BrowserWidgetRpc {
 public:
  orvane::Publisher<CursorChanged> WhenCursorChanged() override {
    std::cerr << "accessor ran\n";
    return nullptr;
  }
  orvane::Caller<AccessibilityRequestFocus> OnAccessibilityRequestFocus()
      override {
    std::cerr << "accessor ran\n";
    return nullptr;
  }
};

TEST_F(BrowserWidgetDeathTest, ACalledStreamingMethodReachesNobody) {
  Talkative caller;
  TalkativeWidget widget;
  for (const int i : {40, 51}) {
    EXPECT_DEATH(
        widget.CallMethod(Method(i), &caller, nullptr, nullptr, &caller),
        AllOf(HasSubstr(kStreaming), Not(HasSubstr("told")),
              Not(HasSubstr("ran"))));
  }
}

TEST_F(BrowserWidgetDeathTest, EachUnaryMethodRefusesToBeOpened) {
  for (int i = 0; i < kUnaryCount; ++i) {
    ExpectFatal([&] { Open(Method(i)); }, kUnary, "OpenStream", CaseOf(i));
  }
}

TEST_F(BrowserWidgetDeathTest, AnotherServicesMethodIsRefusedByItsIndexAlone) {
  EXPECT_DEATH(Open(foreign_[0]), kUnary);
  EXPECT_DEATH(
      service_.CallMethod(foreign_[40], nullptr, nullptr, nullptr, nullptr),
      "Streaming method can't be called");
}

TEST_F(BrowserWidgetDeathTest, EachAccessorIsFatalUnlessOverridden) {
  BrowserWidgetRpc& widget = service_;
  const std::function<void()> accessors[] = {
      [&] { widget.WhenCursorChanged(); },
      [&] { widget.WhenTooltipChanged(); },
      [&] { widget.WhenDropDownCreated(); },
      [&] { widget.WhenDropDownDeleted(); },
      [&] { widget.WhenDragCursorUpdated(); },
      [&] { widget.WhenAriaLiveRegionChanged(); },
      [&] { widget.OnCreateWebDialog(); },
      [&] { widget.OnUpdateSurface(); },
      [&] { widget.OnUpdateLayer(); },
      [&] { widget.OnShowDropdown(); },
      [&] { widget.OnTakeFocus(); },
      [&] { widget.OnAccessibilityRequestFocus(); }};
  for (int i = kUnaryCount; i < kMethodCount; ++i) {
    ExpectFatal(accessors[i - kUnaryCount], kNotImplemented,
                std::string(Method(i)->name()), "{");
  }
}

// The lines tell the states apart.
TEST(BrowserWidgetSource, NoTwoFatalStatementsShareALine) {
  const Source source;
  std::set<std::size_t> lines;
  std::size_t count = 0;
  const auto add = [&](const std::string& member, const std::string& label) {
    const std::size_t line = source.FatalLine(member, label);
    EXPECT_NE(line, 0u) << member << " " << label;
    lines.insert(line);
    ++count;
  };
  for (const char* member : {"GetRequestPrototype", "GetResponsePrototype",
                             "RefuseCall", "OpenStream"})
    add(member, "default:");
  for (int i = 0; i < kUnaryCount; ++i) add("OpenStream", CaseOf(i));
  for (int i = kUnaryCount; i < kMethodCount; ++i) {
    add("RefuseCall", CaseOf(i));
    add(std::string(Method(i)->name()), "{");
  }
  EXPECT_EQ(lines.size(), count);
}

}  // namespace
}  // namespace rpc
