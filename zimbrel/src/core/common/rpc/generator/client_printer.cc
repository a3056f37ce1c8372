#include "zimbrel/src/core/common/rpc/generator/client_printer.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "zimbrel/src/core/common/rpc/generator/common_printer.h"
#include "zimbrel/src/core/common/rpc/generator/layout.h"

namespace orvane::generator {
namespace {

using google::protobuf::io::Printer;

// A member function of a client, as it is declared and as it is defined.
struct Member {
  std::string type;
  std::vector<std::string> parameters;  // Without their defaults.
  std::vector<std::string> defaults;    // Of the last ones.
  std::string function;                 // What it calls,
  std::vector<std::string> arguments;   // and with what.
};

std::string MethodAt(const ServiceModel& service, const MethodModel& method) {
  return "MethodAt(" + std::to_string(service.index) + ", " +
         std::to_string(method.index) + ")";
}

Member BlockingCall(const ServiceModel& service, const MethodModel& method) {
  return {.type = "absl::StatusOr<" + method.response + ">",
          .parameters = {"const " + method.request + "& request",
                         "orvane::CallOptions options"},
          .defaults = {"{}"},
          .function = "orvane::internal::CallAndWait<" + method.response + ">",
          .arguments = {"connection_", MethodAt(service, method), "request",
                        "options"}};
}

Member AsynchronousCall(const ServiceModel& service,
                        const MethodModel& method) {
  return {.type = "orvane::CallHandle",
          .parameters = {"const " + method.request + "& request",
                         "orvane::OnAnswer<" + method.response + "> on_answer",
                         "orvane::CallOptions options"},
          .defaults = {"{}"},
          .function = "orvane::internal::Call<" + method.response + ">",
          .arguments = {"connection_", MethodAt(service, method), "request",
                        "std::move(on_answer)", "options"}};
}

Member Stream(const ServiceModel& service, const MethodModel& method) {
  const bool is_event = method.kind == MethodKind::kEventStream;
  const std::string handler = is_event ? "on_event" : "on_call";
  return {.type = "std::unique_ptr<orvane::ClientStream>",
          .parameters = {"const " + method.key + "& key",
                         (is_event ? "orvane::OnEvent<" : "orvane::OnCall<") +
                             method.response + "> " + handler,
                         "orvane::OnEnd on_end"},
          .defaults = {"nullptr"},
          .function = (is_event ? "orvane::internal::Watch<"
                                : "orvane::internal::Serve<") +
                      method.response + ">",
          .arguments = {"connection_", MethodAt(service, method), "key",
                        "std::move(" + handler + ")", "std::move(on_end)"}};
}

std::vector<Member> MembersOf(const ServiceModel& service,
                              const MethodModel& method) {
  if (method.kind != MethodKind::kUnary) return {Stream(service, method)};
  return {BlockingCall(service, method), AsynchronousCall(service, method)};
}

// The header -----------------------------------------------------------------

void PrintClassComment(const ServiceModel& service, Printer* out) {
  out->PrintRaw(Comment(0, service.comment));
  if (!service.comment.empty()) out->PrintRaw("//\n");
  out->Print(
      R"(// The client's side: what is called here happens at the other end of a
// connection, where $name$ is served.
//
// Thread: everything is called, and everything that is passed runs, on the
// service thread of the connection's loop. Lifetime: the connection outlives
// this object, on which neither calls nor streams depend.
//
// When the process at the other end dies or closes the connection, all that is
// in progress ends with kUnavailable, and so does all that is begun later; an
// orderly end completes streams first, which then end with OK. To go on,
// connect again and make a new client.
)",
      "name", service.full_name);
  if (service.Has(MethodKind::kUnary)) {
    out->Print(R"(//
// Each unary method has two forms. One blocks until the call has ended; the
// loop runs meanwhile, so it must not be used inside anything that the loop
// runs for this connection. The other returns at once, and `on_answer` runs
// later, once: never inside the call. It may be null. SocketClient::Call lists
// how a call may end.
)");
  }
  if (service.Has(MethodKind::kEventStream)) {
    out->Print(R"(//
// A When... method runs `on_event` for each event of `key`, until the handle
// that it returns is destroyed. From then on the handler never runs again. If
// the stream ends otherwise, `on_end` runs once and tells why.
)");
  }
  if (service.Has(MethodKind::kCallbackStream)) {
    out->Print(R"(//
// An On... method makes this client the one that serves `key`, until the handle
// that it returns is destroyed or another stream takes the key over. `on_call`
// runs for each call and answers it through its responder, at once or later; it
// never runs again once the handle is gone. `on_end` as above.
)");
  }
}

std::string Declared(const MethodModel& method, Member member) {
  for (std::size_t i = 0; i < member.defaults.size(); ++i) {
    std::string& parameter =
        member
            .parameters[member.parameters.size() - member.defaults.size() + i];
    parameter += " = " + member.defaults[i];
  }
  const bool must_be_kept = method.kind != MethodKind::kUnary;
  return Declaration(2, (must_be_kept ? "[[nodiscard]] " : "") + member.type,
                     method.name, member.parameters, ";");
}

void PrintClass(const ServiceModel& service, Printer* out) {
  PrintClassComment(service, out);
  out->Print(R"(class $name$ {
 public:
  explicit $name$(orvane::SocketClient* connection)
      : connection_(connection) {}
)",
             "name", service.client_name);
  std::optional<MethodKind> section;
  for (const MethodModel& method : service.methods) {
    if (section != method.kind) {
      section = method.kind;
      out->PrintRaw("\n" + Ruler(2, TitleOf(method.kind)) + "\n");
    }
    out->PrintRaw("\n" + Comment(2, method.comment));
    for (const Member& member : MembersOf(service, method))
      out->PrintRaw(Declared(method, member) + "\n");
  }
  out->Print(R"(
 private:
  $unused$orvane::SocketClient* connection_;
};
)",
             "unused", service.methods.empty() ? "[[maybe_unused]] " : "");
}

// The source -----------------------------------------------------------------

bool HasMethods(const FileModel& file) {
  return std::any_of(
      file.services.begin(), file.services.end(),
      [](const ServiceModel& service) { return !service.methods.empty(); });
}

void PrintMember(const ServiceModel& service, const MethodModel& method,
                 const Member& member, Printer* out) {
  out->PrintRaw(
      "\n" +
      Declaration(0, member.type, service.client_name + "::" + method.name,
                  member.parameters, " {") +
      "\n" + Call(2, "return " + member.function, member.arguments) + "\n}\n");
}

}  // namespace

void PrintClientHeader(const FileModel& file, Printer* out) {
  PrintOrigin(file, out);
  out->Print(R"(#ifndef ORVANE_CLIENT_INCLUDED_$mangled_path$
#define ORVANE_CLIENT_INCLUDED_$mangled_path$

#include <memory>

#include "absl/status/statusor.h"

#include "$stem$.pb.h"
#include "zimbrel/src/core/common/rpc/transport/typed_client.h"
#include "zimbrel/src/core/common/rpc/version.h"

)",
             "stem", file.stem, "mangled_path", file.mangled_path);
  PrintVersionCheck(out);
  PrintNamespaceBegin(file, out);
  for (const ServiceModel& service : file.services) {
    out->PrintRaw("\n");
    PrintClass(service, out);
  }
  PrintNamespaceEnd(file, out);
  out->Print("\n#endif  // ORVANE_CLIENT_INCLUDED_$mangled_path$\n",
             "mangled_path", file.mangled_path);
}

void PrintClientSource(const FileModel& file, Printer* out) {
  PrintOrigin(file, out);
  out->Print(R"(#include "$stem$.client.h"

#include <utility>

#include "google/protobuf/descriptor.h"
#include "google/protobuf/generated_message_reflection.h"

namespace {

)",
             "stem", file.stem);
  PrintRegistration(file, out);
  if (HasMethods(file)) {
    out->Print(R"(
// The method `i` of the proto's service `service`.
const google::protobuf::MethodDescriptor* MethodAt(int service, int i) {
  static const google::protobuf::FileDescriptor* const file =
      google::protobuf::DescriptorPool::generated_pool()->FindFileByName(
          "$path$");
  return file->service(service)->method(i);
}
)",
               "path", file.path);
  }
  out->Print("\n}  // namespace\n");
  PrintNamespaceBegin(file, out);
  for (const ServiceModel& service : file.services) {
    for (const MethodModel& method : service.methods) {
      for (const Member& member : MembersOf(service, method))
        PrintMember(service, method, member, out);
    }
  }
  PrintNamespaceEnd(file, out);
}

}  // namespace orvane::generator
