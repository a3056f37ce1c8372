#include "tools/widgetctl/commands.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

#include "tools/widgetctl/call.h"
#include "tools/widgetctl/completion.h"
#include "tools/widgetctl/describe.h"
#include "tools/widgetctl/documented.h"
#include "tools/widgetctl/json.h"
#include "tools/widgetctl/methods.h"
#include "tools/widgetctl/record.h"
#include "tools/widgetctl/session.h"
#include "tools/widgetctl/session_runner.h"
#include "tools/widgetctl/status.h"
#include "tools/widgetctl/stream_commands.h"
#include "tools/widgetctl/trace.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/printable.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace widgetctl {

using orvane::EventLoop;
using orvane::SocketClient;

namespace {

// The content of a file, or of stdin if the path is "-".
absl::StatusOr<std::string> ReadAll(const std::string& path) {
  std::FILE* const file = path == "-" ? stdin : std::fopen(path.c_str(), "re");
  const auto error = [&path] {
    return absl::NotFoundError(
        absl::StrCat("cannot read ", path, ": ", std::strerror(errno)));
  };
  if (file == nullptr) return error();
  absl::StatusOr<std::string> text = "";
  char chunk[4096];
  while (const std::size_t size = std::fread(chunk, 1, sizeof chunk, file)) {
    text->append(chunk, size);
  }
  if (std::ferror(file) != 0) text = error();
  if (file != stdin) std::fclose(file);
  return text;
}

ExitCode List(const Options& options, const std::vector<std::string>&) {
  std::cout << ListMethods(*options.services.front());
  return kOk;
}

ExitCode Describe(const Options& options,
                  const std::vector<std::string>& name) {
  if (name.empty()) {
    std::cout << DescribeService(WithComments(*options.services.front()));
    return kOk;
  }
  const absl::StatusOr<std::string> text = DescribeNamed(
      WithComments(ServiceWithMethod(options.services, name[0])), name[0]);
  if (!text.ok()) return Fail(kUsage, text.status().message());
  std::cout << *text;
  return kOk;
}

ExitCode Call(const Options& options,
              const std::vector<std::string>& method_and_json) {
  const std::string& method = method_and_json[0];
  absl::StatusOr<std::string> json =
      method_and_json.size() > 1 ? method_and_json[1] : "{}";
  if (*json == "-") json = ReadAll("-");
  if (!json.ok()) return Fail(kUsage, json.status().message());
  const absl::StatusOr<UnaryCall> call =
      PrepareCall(ServiceWithMethod(options.services, method), method, *json);
  if (!call.ok()) return Fail(kUsage, call.status().message());

  EventLoop loop;
  const absl::StatusOr<std::unique_ptr<SocketClient>> client =
      SocketClient::Connect(&loop, options.socket);
  if (!client.ok()) return Fail(kNoConnection, client.status().message());
  const Answer answer = MakeCall(*call, options.timeout, **client);
  if (!answer.ok()) {
    return Fail((*client)->status().ok() ? kFailed : kNoConnection,
                absl::StrCat(method, " failed: ",
                             orvane::Printable(answer.status().message())));
  }
  std::cout << ToJson(**answer) << '\n';
  return kOk;
}

ExitCode CompleteLine(const Options& options,
                      const std::vector<std::string>& line) {
  std::vector<CompletedCommand> commands;
  for (const Command& command : Commands()) {
    commands.push_back(
        {std::string(command.name), std::string(command.options)});
  }
  for (const std::string& continuation :
       Continuations(options.services, commands, line[0])) {
    std::cout << continuation << '\n';
  }
  return kOk;
}

ExitCode Run(const Options& options, const std::vector<std::string>& file) {
  const std::string& path = file[0];
  const absl::StatusOr<std::string> text = ReadAll(path);
  if (!text.ok()) return Fail(kUsage, text.status().message());
  const absl::StatusOr<std::vector<SessionStep>> session =
      LoadSession(options.services, *text);
  if (!session.ok()) {
    return Fail(kUsage, absl::StrCat(path == "-" ? "stdin" : path, ", ",
                                     session.status().message()));
  }

  EventLoop loop;
  const SessionOutcome outcome = RunSession(
      *session, options.timeout, loop,
      [&] { return SocketClient::Connect(&loop, options.socket); }, std::cout);
  if (!outcome.connection.ok()) {
    return Fail(kNoConnection, orvane::Printable(outcome.connection.message()));
  }
  return outcome.is_as_expected ? kOk : kFailed;
}

constexpr Command kCommands[] = {
    {"list", "", "", 0, 0, "lists the methods of the service",
     "One method a line: index, name, kind, request -> response. Needs no "
     "server. With --service, lists those of another service.\n",
     &List},
    {"describe", "[METHOD|MESSAGE|ENUM]", "", 0, 1,
     "explains methods and types",
     R"(Prints every method of the service with its comments. With a name, prints that
method, message or enum and the types that it needs. Fields have their JSON
names. Needs no server.

In JSON an enum value is its name, bytes are base64, and a 64-bit number is a
string (a plain number is accepted too). Fields that are left out have their
defaults.
)",
     &Describe},
    {"call", "METHOD [JSON]", "", 1, 2, "calls a unary method",
     R"(The request is JSON; `-` reads it from stdin, and without one it is {}. Prints
the response as JSON on one line.

  widgetctl call Show '{"value": 1}'
)",
     &Call},
    {"watch", "METHOD KEY", "[--count N]", 2, 2,
     "prints the events of a browser",
     R"(Prints each event as JSON on one line, until SIGINT or SIGTERM. The key is a
BrowserId as JSON, or just its number. With --count it ends after N events, and
fails if they have not arrived within the timeout.

  widgetctl watch WhenCursorChanged 1
)",
     &Watch},
    {"serve", "METHOD KEY",
     "(--reply JSON | --fail TEXT | --command COMMAND) [--count N]", 2, 2,
     "answers the calls of a browser",
     R"(Prints each call as JSON on one line and answers it, until SIGINT or SIGTERM.
The key is a BrowserId as JSON, or just its number. The answer to each call is

  --reply JSON       this response
  --fail TEXT        an error
  --command COMMAND  the JSON that COMMAND prints. /bin/sh runs it with the
                     call's line as stdin. If it fails or does not print a
                     response, the call fails.

Up to 16 commands run at the same time. Further calls wait; if 100 wait
already, a call fails. With --count it ends after N answers, and fails if it has
not given them within the timeout. Commands that still run at the end are
terminated, with all processes that they have started.

  widgetctl serve OnTakeFocus 1 --reply '{"taken": true}'
)",
     &Serve},
    {"run", "FILE", "", 1, 1, "replays a recorded session",
     R"(Does what the lines of FILE say and compares the results with those that they
expect. `-` reads stdin. A line is blank, a remark, or one of these:

  # Browser 7 was never created.
  Show {"value": 7} => error: browser 7 does not exist
  Show {"value": 1} => {}

  watch WhenCursorChanged 1
  event WhenCursorChanged {"browserId": {"value": 1}}
  end WhenCursorChanged 1

  serve OnTakeFocus 1 => {"taken": true}
  called OnTakeFocus {"browserId": {"value": 1}, "call": {}}
  end OnTakeFocus 1

  serve OnTakeFocus 1
  called OnTakeFocus {"call": {}} => {"taken": true}

  allow OnUpdateSurface
  serve OnUpdateSurface 1 => {"receipt": {"frameId": "${frame.frameId}"}}

  @second Show {"value": 2} => {}
  @second disconnect

A line with `=>` ends with a response, or with the exact text of an error; with
`=~` the response may have more fields. `event` and `called` wait for the next
event or call of their method; if the method is allowed, for one that has these
fields. "${...}" stands for a field of the call that is answered. What begins
with @NAME goes over a connection of its own. The session fails if something
differs, or if something arrives that no line expects or allows.
)",
     &Run},
    {"complete", "LINE", "", 1, 1, "tells a shell how a line may go on",
     R"(Prints what may follow at the end of LINE, a command line of this program that
somebody is typing: one continuation a line, nothing where a file is named. The
completions for bash and zsh use it.
)",
     &CompleteLine},
    {"status", "", "[--watch] [--json]", 0, 0, "tells what the widget is doing",
     R"(Prints the clients of the widget, with the oldest call that each waits for, how
much of its limits the widget uses, and whom it has refused. If the widget does
not answer within the timeout, tells in which state its process is.

  --watch  print it again each second, until SIGINT or SIGTERM
  --json   print each status as a line of JSON
)",
     &Status},
    {"record", "FILE [PATH]", "[--varying NAME]... [--text]", 1, 2,
     "writes what hosts say as a session",
     R"(Stands between hosts and the widget like `trace`, and writes FILE, which `run`
plays back to another widget: what hosts do, and what the widget says.

  widget_server --socket /tmp/behind/widget.sock
  widgetctl --socket /tmp/behind/widget.sock record bug.session
  widgetctl run bug.session

Not written are pictures, tokens and times of the widget's, which differ from run
to run.

  --varying NAME  a field, by its name in JSON, that differs too; or an event
                  stream, of whose events only the latest counts before the host
                  does something
  --text          write what is typed into pages and dialogs; without it, each
                  character becomes an x
                  (what is dropped into pages, names of files and scripts are
                  written in any case)
)",
     &Record},
    {"trace", "[PATH]",
     "[--json] [--method NAME]... [--browser ID] [--no-payloads]", 0, 1,
     "shows what hosts and the widget say",
     R"(Stands between hosts and the widget, until SIGINT or SIGTERM: listens at PATH,
connects each host to the widget at --socket, passes on all that they send, and
prints a line for each frame. Without a PATH it listens where hosts look for a
widget by default, so the widget must have been started elsewhere.

  widget_server --socket /tmp/behind/widget.sock
  widgetctl --socket /tmp/behind/widget.sock trace

A line has the seconds since the start, the connection's number, > for the host
or < for the widget, what it says, the method, the number of the call or stream,
behind a slash the number of a call of the widget's, the milliseconds since the
call that is answered, and the message as JSON.

  --json         print each line as JSON
  --method NAME  only these methods
  --browser ID   only this browser
  --no-payloads  leave out the messages; passes on faster

Hosts and widget wait while nobody reads what is printed.
)",
     &Trace},
};

}  // namespace

ExitCode Fail(ExitCode code, absl::string_view why) {
  std::cerr << "widgetctl: " << why << '\n';
  return code;
}

absl::Span<const Command> Commands() { return kCommands; }

std::string Synopsis(const Command& command) {
  return absl::StrCat(command.name, command.arguments.empty() ? "" : " ",
                      command.arguments);
}

}  // namespace widgetctl
