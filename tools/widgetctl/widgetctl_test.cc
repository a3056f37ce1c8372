// The program itself, run against a server in this process.

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "tools/widgetctl/program_test.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/version.h"

namespace widgetctl {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;
using orvane::testing::ChildProcess;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// One method for each way in which a call may end.
class ScriptedWidget final : public rpc::BrowserWidgetRpc {
 public:
  ~ScriptedWidget() override {
    for (Closure* const done : unanswered_) done->Run();
  }

  void Show(RpcController*, const BrowserId*, Empty*, Closure* done) override {
    done->Run();
  }

  void GetChromiumWindowHandle(RpcController*, const BrowserId* request,
                               rpc::WindowHandle* response,
                               Closure* done) override {
    response->set_handle(request->value() * 100);
    done->Run();
  }

  void Hide(RpcController* controller, const BrowserId* request, Empty*,
            Closure* done) override {
    controller->SetFailed(
        absl::StrCat("browser ", request->value(), " will not hide "));
    done->Run();
  }

  void Unfocus(RpcController* controller, const BrowserId*, Empty*,
               Closure* done) override {
    controller->SetFailed("no\nwidgetctl: \x1b[2J" + std::string(2010, 'x'));
    done->Run();
  }

  void Minimize(RpcController*, const BrowserId*, Empty*,
                Closure* done) override {
    unanswered_.push_back(done);
  }

  void Detach(RpcController*, const BrowserId*, Empty*,
              Closure* done) override {
    server.reset();
    done->Run();
  }

  std::optional<orvane::SocketServer> server;

 private:
  std::vector<Closure*> unanswered_;
};

class WidgetctlTest : public ProgramTest<ScriptedWidget> {
 protected:
  ChildProcess::Result WidgetctlReading(
      const std::string& input, std::vector<std::string> arguments) const {
    const std::vector<std::string> command = Command(std::move(arguments));
    std::vector<std::string> shell = {"/bin/sh", "-c", R"(exec "$@" <"$0")",
                                      File("input", input)};
    shell.insert(shell.end(), command.begin(), command.end());
    return ChildProcess(shell).Wait();
  }
};

TEST_F(WidgetctlTest, ListNeedsNoServer) {
  EXPECT_THAT(Widgetctl({"list", "--socket", Path("nobody.sock")}),
              Succeeds(ContainsRegex("^ 0  Focus .*\n")));
}

// As bash calls the completion's function, whose words are those of a shell.
TEST_F(WidgetctlTest, BashCompletesTheFieldsOfARequest) {
  const ChildProcess::Result result =
      ChildProcess({"/bin/bash", "-c",
                    "compopt() { :; }\n"
                    "source '" COMPLETIONS "/widgetctl.bash'\n"
                    "COMP_LINE=\"widgetctl call Focus '{\\\"bro\"\n"
                    "COMP_POINT=${#COMP_LINE}\n"
                    "COMP_WORDS=(widgetctl call Focus \"'{\\\"bro\")\n"
                    "COMP_CWORD=3\n"
                    "_widgetctl '" WIDGETCTL "' '{\"bro' Focus\n"
                    "printf '%s|\\n' \"${COMPREPLY[@]}\""})
          .Wait();
  EXPECT_EQ(result.output,
            "{\"browserId\": |\n"
            "{\"browserId\":  |\n")
      << result.errors;
}

TEST_F(WidgetctlTest, AServiceIsChosenByItsName) {
  EXPECT_THAT(Widgetctl({"--service", "PageRpc", "list"}),
              Succeeds(ContainsRegex("^ 0  Load .*\n")));
  EXPECT_THAT(Widgetctl({"--service", "rpc.PageRpc", "list"}),
              Succeeds(ContainsRegex("^ 0  Load .*\n")));
  EXPECT_THAT(
      Widgetctl({"--service", "PageRpc", "call", "Show"}),
      Fails(2,
            "widgetctl: no method Show in rpc.PageRpc; did you mean Stop?\n"));
}

TEST_F(WidgetctlTest, AServiceIsFoundByTheMethod) {
  EXPECT_THAT(Widgetctl({"describe", "GoBack"}),
              Succeeds(HasSubstr("\nrpc GoBack(BrowserId) returns")));
  // The widget of these tests serves another one only.
  const ChildProcess::Result called = Widgetctl({"call", "GetPage"});
  EXPECT_EQ(called.exit_code, 3);
  EXPECT_THAT(called.errors, HasSubstr("they differ in service"));
}

TEST_F(WidgetctlTest, DescribeHasTheCommentsOfTheProtos) {
  EXPECT_THAT(
      Widgetctl({"describe", "Unfocus", "--socket", Path("nobody.sock")}),
      Succeeds(AllOf(StartsWith("// Takes the keyboard focus from"),
                     HasSubstr("\nrpc Unfocus(BrowserId) returns"),
                     HasSubstr("\n// Names one browser."),
                     HasSubstr("  value: uint64\n"))));
}

TEST_F(WidgetctlTest, DescribeWithoutANameTellsTheService) {
  EXPECT_THAT(Widgetctl({"describe"}),
              Succeeds(AllOf(StartsWith("// Drives the browser widgets"),
                             HasSubstr("\nservice rpc.BrowserWidgetRpc {\n"),
                             HasSubstr("  // Makes the view visible"))));
}

TEST_F(WidgetctlTest, DescribeOfAnUnknownNameIsWrongUsage) {
  EXPECT_THAT(Widgetctl({"describe", "Shwo"}),
              Fails(2,
                    "widgetctl: no method, message or enum Shwo in "
                    "rpc.BrowserWidgetRpc; did you mean Show?\n"));
}

TEST_F(WidgetctlTest, CallPrintsTheResponseOnOneLine) {
  EXPECT_THAT(Widgetctl({"call", "GetChromiumWindowHandle", R"({"value": 7})"}),
              Succeeds("{\"handle\":\"700\"}\n"));
}

TEST_F(WidgetctlTest, CallWithoutJsonSendsAnEmptyRequest) {
  EXPECT_THAT(Widgetctl({"call", "GetChromiumWindowHandle"}), Succeeds("{}\n"));
}

TEST_F(WidgetctlTest, CallReadsTheRequestFromStdin) {
  EXPECT_THAT(WidgetctlReading("{\n\"value\": 7\n}\n",
                               {"call", "GetChromiumWindowHandle", "-"}),
              Succeeds("{\"handle\":\"700\"}\n"));
}

TEST_F(WidgetctlTest, CallTellsTheTextOfAFailedCall) {
  EXPECT_THAT(Widgetctl({"call", "Hide", R"({"value": 7})"}),
              Fails(1, "widgetctl: Hide failed: browser 7 will not hide \n"));
  EXPECT_THAT(Widgetctl({"call", "Restore"}),
              Fails(1,
                    "widgetctl: Restore failed: "
                    "Method Restore() not implemented.\n"));
}

TEST_F(WidgetctlTest, TheTextOfAFailedCallCannotCommandTheTerminal) {
  const auto printed = AllOf(HasSubstr("no\\nwidgetctl: \\033[2Jxxx"),
                             HasSubstr("xxx...\n"), Not(HasSubstr("\x1b")));
  EXPECT_THAT(Widgetctl({"call", "Unfocus"}), Fails(1, printed));
  const ChildProcess::Result run =
      Widgetctl({"run", File("calls", "Unfocus {} => {}\n")});
  EXPECT_THAT(run.output, printed);
  EXPECT_EQ(run.exit_code, 1);
}

TEST_F(WidgetctlTest, CallGivesUpAfterTheTimeout) {
  EXPECT_THAT(Widgetctl({"--timeout", "0.05", "call", "Minimize"}),
              Fails(1, "widgetctl: Minimize failed: no answer within 50ms\n"));
}

TEST_F(WidgetctlTest, CallTellsThatTheConnectionWasLost) {
  EXPECT_THAT(Widgetctl({"call", "Detach"}),
              Fails(3,
                    "widgetctl: Detach failed: "
                    "the server closed the connection\n"));
}

TEST_F(WidgetctlTest, CommandsThatConnectTellThatNobodyListens) {
  const std::string nobody = Path("nobody.sock");
  const auto tells =
      Fails(3, StartsWith("widgetctl: no server listens at " + nobody + ": "));
  EXPECT_THAT(Widgetctl({"--socket", nobody, "call", "Show"}), tells);
  EXPECT_THAT(
      Widgetctl({"--socket", nobody, "run", File("calls", "Show {} => {}\n")}),
      tells);
  EXPECT_THAT(
      Widgetctl({"--socket", nobody, "watch", "WhenCursorChanged", "1"}),
      tells);
  EXPECT_THAT(Widgetctl({"--socket", nobody, "serve", "OnTakeFocus", "1",
                         "--reply", "{}"}),
              tells);
}

TEST_F(WidgetctlTest, OptionsMayFollowTheCommand) {
  EXPECT_THAT(Widgetctl({"call", "Minimize", "{}", "--timeout=0.05"}),
              Fails(1, HasSubstr("no answer within 50ms")));
}

struct Misuse {
  const char* name;
  std::vector<std::string> arguments;
  std::string errors;
};

class WidgetctlMisuseTest : public WidgetctlTest,
                            public testing::WithParamInterface<Misuse> {};

TEST_P(WidgetctlMisuseTest, IsToldAndLeavesTheServerAlone) {
  EXPECT_THAT(Widgetctl(GetParam().arguments),
              Fails(2, HasSubstr(GetParam().errors)));
  EXPECT_THAT(Widgetctl({"call", "Show"}), Succeeds("{}\n"));
}

const Misuse kMisuses[] = {
    {"UnknownMethod",
     {"call", "SetDpi"},
     "no method SetDpi in rpc.BrowserWidgetRpc; did you mean SetDpiAware?\n"},
    {"EventStream",
     {"call", "WhenCursorChanged"},
     "WhenCursorChanged cannot be called: it is of kind event stream, not "
     "unary\n"},
    {"CallbackStream",
     {"call", "OnTakeFocus"},
     "OnTakeFocus cannot be called: it is of kind callback stream, not "
     "unary\n"},
    {"MalformedJson",
     {"call", "Show", R"({"value" 1})"},
     "the request of Show is not valid JSON for BrowserId: "},
    {"NoJson", {"call", "Show", ""}, "is not valid JSON for BrowserId: "},
    {"UnknownField", {"call", "Show", R"({"valeu": 1})"}, "valeu"},
    {"WrongValue",
     {"call", "SetDisplay", R"({"rotationDeg": "much"})"},
     "rotation"},
    {"UnknownCommand", {"cal"}, "no command cal; did you mean call?\n"},
    {"NoCommand", {}, "a command is missing\nSee widgetctl --help.\n"},
    {"NoMethod", {"call"}, "the command is call METHOD [JSON]\n"},
    {"TooMuch", {"call", "Show", "{}", "{}"}, "call METHOD [JSON]\n"},
    {"ArgumentOfList", {"list", "Show"}, "the command is list\n"},
    {"UnknownService",
     {"--service", "Pages", "list"},
     "--service: there is no Pages"},
    {"UnknownOption", {"list", "--fast"}, "'--fast'\nSee widgetctl --help.\n"},
    {"OptionWithoutValue", {"list", "--timeout"}, "requires an argument\n"},
    {"TimeoutOfZero",
     {"--timeout", "0", "call", "Show"},
     "--timeout takes a number of seconds above 0, not '0'\n"},
    {"TimeoutTooSmallToTell", {"--timeout", "1e-300", "list"}, "not '1e-300'"},
    {"NegativeTimeout", {"--timeout", "-1", "list"}, "not '-1'"},
    {"TimeoutInWords", {"--timeout", "soon", "list"}, "not 'soon'"},
    {"TimeoutWithUnit", {"--timeout", "5s", "list"}, "not '5s'"},
    {"EndlessTimeout", {"--timeout", "inf", "list"}, "not 'inf'"},
    {"TimeoutOfNoNumber", {"--timeout", "nan", "list"}, "not 'nan'"},
    {"WatchOfAUnaryMethod",
     {"watch", "Show", "1"},
     "Show cannot be watched: it is of kind unary, not event stream\n"},
    {"WatchOfACallbackStream",
     {"watch", "OnTakeFocus", "1"},
     "OnTakeFocus cannot be watched: it is of kind callback stream, not event "
     "stream\n"},
    {"WatchOfAnUnknownMethod",
     {"watch", "WhenCursorChange", "1"},
     "did you mean WhenCursorChanged?\n"},
    {"WatchWithoutKey",
     {"watch", "WhenCursorChanged"},
     "the command is watch METHOD KEY\n"},
    {"WatchOfAKeyInWords",
     {"watch", "WhenCursorChanged", "one"},
     "the key of WhenCursorChanged is not valid JSON for BrowserId: "},
    {"WatchOfATooLargeKey",
     {"watch", "WhenCursorChanged", "18446744073709551616"},
     "the key of WhenCursorChanged is not valid JSON for BrowserId: "},
    {"WatchOfAKeyWithAnUnknownField",
     {"watch", "WhenCursorChanged", R"({"valeu": 1})"},
     "valeu"},
    {"WatchWithAnAnswer",
     {"watch", "WhenCursorChanged", "1", "--reply", "{}"},
     "watch takes no --reply\nSee widgetctl --help.\n"},
    {"ServeOfAUnaryMethod",
     {"serve", "Show", "1", "--reply", "{}"},
     "Show cannot be served: it is of kind unary, not callback stream\n"},
    {"ServeOfAnEventStream",
     {"serve", "WhenCursorChanged", "1", "--reply", "{}"},
     "WhenCursorChanged cannot be served: it is of kind event stream, not "
     "callback stream\n"},
    {"ServeWithoutKey",
     {"serve", "OnTakeFocus", "--reply", "{}"},
     "the command is serve METHOD KEY\n"},
    {"ServeOfAKeyInWords",
     {"serve", "OnTakeFocus", "one", "--reply", "{}"},
     "the key of OnTakeFocus is not valid JSON for BrowserId: "},
    {"ServeWithoutAnswer",
     {"serve", "OnTakeFocus", "1"},
     "serve needs --reply JSON, --fail TEXT or --command COMMAND\n"},
    {"ServeWithTwoAnswers",
     {"serve", "OnTakeFocus", "1", "--reply", "{}", "--fail", "no"},
     "serve takes only one of --reply, --fail and --command\n"},
    {"ServeWithAReplyThatDoesNotFit",
     {"serve", "OnTakeFocus", "1", "--reply", R"({"took": true})"},
     "the response of OnTakeFocus is not valid JSON for "
     "rpc.TakeFocusResponse: "},
    {"CountOfZero",
     {"watch", "WhenCursorChanged", "1", "--count", "0"},
     "--count takes a whole number above 0, not '0'\n"},
    {"CountInWords",
     {"watch", "WhenCursorChanged", "1", "--count", "two"},
     "not 'two'"},
    {"CountOfCalls",
     {"call", "Show", "--count", "2"},
     "call takes no --count\n"},
    {"FailingCall", {"call", "Show", "--fail", "no"}, "call takes no --fail\n"},
    {"CommandOfASession",
     {"run", "-", "--command", "true"},
     "run takes no --command\n"},
    {"MissingSession",
     {"run", "/nowhere/calls"},
     "cannot read /nowhere/calls: No such file or directory\n"},
    {"SessionThatIsAFolder", {"run", "/"}, "cannot read /: Is a directory\n"},
};

INSTANTIATE_TEST_SUITE_P(All, WidgetctlMisuseTest, testing::ValuesIn(kMisuses),
                         [](const auto& misuse) {
                           return std::string(misuse.param.name);
                         });

TEST_F(WidgetctlTest, HelpTellsCommandsOptionsAndExitCodes) {
  EXPECT_THAT(
      Widgetctl({"--help"}),
      Succeeds(AllOf(
          StartsWith("Usage: widgetctl "), HasSubstr("\n  call METHOD [JSON] "),
          HasSubstr("\n  watch METHOD KEY "),
          HasSubstr("\n  serve METHOD KEY "),
          HasSubstr("\n  --timeout SECONDS "), HasSubstr("\n  --count N "),
          HasSubstr("\n  --reply JSON "), HasSubstr("\n  --fail TEXT "),
          HasSubstr("\n  --command COMMAND "), HasSubstr("\nExit code: "))));
}

TEST_F(WidgetctlTest, TellsItsVersion) {
  EXPECT_THAT(Widgetctl({"--version"}),
              Succeeds("widgetctl " + std::string(orvane::kVersion) + "\n"));
}

TEST_F(WidgetctlTest, EachCommandHasHelpOfItsOwn) {
  for (const std::string command :
       {"list", "describe", "call", "watch", "serve", "run"}) {
    EXPECT_THAT(
        Widgetctl({command, "--help"}),
        Succeeds(StartsWith("Usage: widgetctl [OPTION]... " + command)));
  }
}

TEST_F(WidgetctlTest, RunPrintsATranscriptOfASessionThatIsAsExpected) {
  const std::string session = File("calls",
                                   "# Two calls.\n"
                                   "Show {\"value\": 1} => {}\n"
                                   "# The second one fails.\n"
                                   "Hide {\"value\": 1} => "
                                   "error: browser 1 will not hide \n");
  EXPECT_THAT(Widgetctl({"run", session}),
              Succeeds(ContainsRegex(
                  "^# Two calls.\n"
                  "ok +[0-9.]+ ms  Show \\{\"value\":\"1\"\\} => \\{\\}\n"
                  "\n"
                  "# The second one fails.\n"
                  "ok +[0-9.]+ ms  Hide \\{\"value\":\"1\"\\} => "
                  "error: browser 1 will not hide \n"
                  "\n"
                  "2 calls in [0-9.]+ ms: all as expected\n$")));
}

TEST_F(WidgetctlTest, RunPutsTheAnswerBelowALongCall) {
  const std::string zeros(70, '0');
  const std::string session =
      File("calls",
           "Show {\"value\": 1} => {}\n"
           "ForwardKeyType {\"text\": \"" +
               zeros +
               "\"} => "
               "error: Method ForwardKeyType() not implemented.\n");
  EXPECT_THAT(Widgetctl({"run", session}),
              Succeeds(HasSubstr(
                  "  ForwardKeyType {\"text\":\"" + zeros +
                  "\"}\n"
                  "                     => error: Method ForwardKeyType()")));
}

TEST_F(WidgetctlTest, RunReadsTheSessionFromStdin) {
  EXPECT_THAT(WidgetctlReading("Show {} => {}\n", {"run", "-"}),
              Succeeds(HasSubstr("\n1 call in ")));
}

TEST_F(WidgetctlTest, RunComparesMessagesAndNotTheirTexts) {
  const std::string session =
      File("calls",
           "GetChromiumWindowHandle {\"value\": 7} => "
           "{ \"platform\": \"PLATFORM_UNSPECIFIED\", \"handle\": 700 }\n");
  EXPECT_EQ(Widgetctl({"run", session}).exit_code, 0);
}

TEST_F(WidgetctlTest, RunTellsWhatDiffersAndGoesOn) {
  const std::string session = File("calls",
                                   "# Three that differ, one that does not.\n"
                                   "GetChromiumWindowHandle {\"value\": 7} => "
                                   "{\"handle\": 701}\n"
                                   "Show {} => error: no\n"
                                   "Show {} => {}\n"
                                   "Hide {} => {}\n");
  const ChildProcess::Result result = Widgetctl({"run", session});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "");
  EXPECT_THAT(
      result.output,
      AllOf(HasSubstr("  line 2, expected: {\"handle\":\"701\"}\n"
                      "  line 2, actual:   {\"handle\":\"700\"}\n"),
            HasSubstr("  line 3, expected: error: no\n"
                      "  line 3, actual:   {}\n"),
            HasSubstr("Show {} => {}\n"),
            HasSubstr("  line 5, expected: {}\n"
                      "  line 5, actual:   error: browser 0 will not hide \n"),
            ContainsRegex("\n4 calls in .* ms: 3 not as expected\n$")));
}

TEST_F(WidgetctlTest, RunWantsTheTextOfAnErrorToTheLetter) {
  const std::string session =
      File("calls", "Hide {\"value\": 1} => error: browser 1 will not hide\n");
  EXPECT_EQ(Widgetctl({"run", session}).exit_code, 1);
}

TEST_F(WidgetctlTest, RunHoldsEachCallAgainstTheTimeout) {
  const std::string session =
      File("calls", "Minimize {} => {}\nMinimize {} => {}\n");
  const ChildProcess::Result result =
      Widgetctl({"run", session, "--timeout", "0.05"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.output,
              AllOf(HasSubstr("line 1, actual:   error: no answer within 50ms"),
                    HasSubstr("line 2, actual:   error: no answer within 50ms"),
                    ContainsRegex("\n2 calls in .* ms: 2 not as expected\n$")));
}

TEST_F(WidgetctlTest, RunStopsWhenTheConnectionIsLost) {
  const std::string session = File("calls", "Detach {} => {}\nShow {} => {}\n");
  const ChildProcess::Result result = Widgetctl({"run", session});
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_EQ(result.errors, "widgetctl: the server closed the connection\n");
  EXPECT_THAT(
      result.output,
      EndsWith("actual:   error: the server closed the connection\n"
               "\nthe connection is gone; no further calls are made\n"));
}

TEST_F(WidgetctlTest, RunMakesNoCallsIfALineIsWrong) {
  const auto complaint = [this](const std::string& line) {
    const ChildProcess::Result result =
        Widgetctl({"run", File("calls", "Show {} => {}\n" + line + "\n")});
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_EQ(result.output, "");
    return result.errors;
  };
  const std::string where = "widgetctl: " + Path("calls") + ", line 2: ";
  EXPECT_EQ(complaint("Hide {}"), where + "a call lacks its `=>` and answer\n");
  EXPECT_EQ(complaint("Hied {} => {}"),
            where +
                "no method Hied in rpc.BrowserWidgetRpc; "
                "did you mean Hide?\n");
  EXPECT_THAT(complaint("WhenCursorChanged {} => {}"),
              StartsWith(where + "WhenCursorChanged cannot be called"));
  EXPECT_THAT(
      complaint("Hide {\"value\" 1} => {}"),
      StartsWith(where +
                 "the request of Hide is not valid JSON for BrowserId"));
  EXPECT_THAT(complaint("Hide {} => {\"value\": 1}"),
              StartsWith(where + "the response of Hide is not valid JSON for "
                                 "google.protobuf.Empty"));
  EXPECT_EQ(complaint("event WhenCursorChanged {}"),
            where + "WhenCursorChanged was not watched before\n");
}

}  // namespace
}  // namespace widgetctl
