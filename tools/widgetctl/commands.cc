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
#include "tools/widgetctl/describe.h"
#include "tools/widgetctl/documented.h"
#include "tools/widgetctl/json.h"
#include "tools/widgetctl/session_runner.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace widgetctl {

using orvane::EventLoop;
using orvane::SocketClient;

namespace {

ExitCode Fail(ExitCode code, absl::string_view why) {
  std::cerr << "widgetctl: " << why << '\n';
  return code;
}

// All of a file, or of stdin if the path is "-".
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
  std::cout << ListMethods(*options.service);
  return kOk;
}

ExitCode Describe(const Options& options,
                  const std::vector<std::string>& name) {
  const google::protobuf::ServiceDescriptor& service =
      WithComments(*options.service);
  if (name.empty()) {
    std::cout << DescribeService(service);
    return kOk;
  }
  const absl::StatusOr<std::string> text = DescribeNamed(service, name[0]);
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
      PrepareCall(*options.service, method, *json);
  if (!call.ok()) return Fail(kUsage, call.status().message());

  EventLoop loop;
  const absl::StatusOr<std::unique_ptr<SocketClient>> client =
      SocketClient::Connect(&loop, options.socket);
  if (!client.ok()) return Fail(kNoConnection, client.status().message());
  if (const absl::Status ended = MakeCall(*call, options.timeout, **client);
      !ended.ok()) {
    return Fail((*client)->status().ok() ? kFailed : kNoConnection,
                absl::StrCat(method, " failed: ", ended.message()));
  }
  std::cout << ToJson(*call->response) << '\n';
  return kOk;
}

ExitCode Run(const Options& options, const std::vector<std::string>& file) {
  const std::string& path = file[0];
  const absl::StatusOr<std::string> text = ReadAll(path);
  if (!text.ok()) return Fail(kUsage, text.status().message());
  const absl::StatusOr<SessionRunner> session =
      SessionRunner::Load(*options.service, *text);
  if (!session.ok()) {
    return Fail(kUsage, absl::StrCat(path == "-" ? "stdin" : path, ", ",
                                     session.status().message()));
  }

  EventLoop loop;
  const absl::StatusOr<std::unique_ptr<SocketClient>> client =
      SocketClient::Connect(&loop, options.socket);
  if (!client.ok()) return Fail(kNoConnection, client.status().message());
  if (session->Run(options.timeout, **client, std::cout)) return kOk;
  const absl::Status& connection = (*client)->status();
  return connection.ok() ? kFailed : Fail(kNoConnection, connection.message());
}

constexpr Command kCommands[] = {
    {"list", "", 0, 0, "lists the methods of the service",
     "One method a line: index, name, kind, request -> response. Needs no "
     "server.\n",
     &List},
    {"describe", "[METHOD|MESSAGE|ENUM]", 0, 1,
     "tells what methods and types are for",
     R"(Without a name: every method of the service. With one: that method, message or
enum and the types that it needs. Fields have the names that they have in JSON.
Needs no server.

In JSON an enum value is its name, bytes are base64, and a 64-bit number is a
string (a plain number is read as well). What is left out has its default.
)",
     &Describe},
    {"call", "METHOD [JSON]", 1, 2, "calls a unary method",
     R"(The request is JSON, read from stdin if it is `-`, {} if it is left out. The
response is printed as JSON on one line.

  widgetctl call Show '{"value": 1}'
)",
     &Call},
    {"run", "FILE", 1, 1, "replays a recorded session",
     R"(Makes the calls of FILE, or of stdin if it is `-`, and holds each answer
against the one that the file expects. Each line is a call, with its response or
the exact text of its error, or a remark, or blank:

  # Browser 7 was never created.
  Show {"value": 1} => {}
  Show {"value": 7} => error: browser 7 does not exist
)",
     &Run},
};

}  // namespace

absl::Span<const Command> Commands() { return kCommands; }

std::string Synopsis(const Command& command) {
  return absl::StrCat(command.name, command.arguments.empty() ? "" : " ",
                      command.arguments);
}

}  // namespace widgetctl
