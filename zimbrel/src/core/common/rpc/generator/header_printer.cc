#include "zimbrel/src/core/common/rpc/generator/header_printer.h"

#include <optional>
#include <string>

#include "zimbrel/src/core/common/rpc/generator/common_printer.h"
#include "zimbrel/src/core/common/rpc/generator/layout.h"

namespace orvane::generator {
namespace {

using google::protobuf::io::Printer;

// These headers include those of the streams.
std::string StreamIncludes(const FileModel& file) {
  std::string includes;
  if (file.Has(MethodKind::kCallbackStream))
    includes += "#include \"zimbrel/src/core/common/rpc/stream/call.h\"\n";
  if (file.Has(MethodKind::kEventStream))
    includes += "#include \"zimbrel/src/core/common/rpc/stream/publish.h\"\n";
  return includes;
}

void PrintTop(const FileModel& file, Printer* out) {
  PrintOrigin(file, out);
  out->Print(R"(#ifndef ORVANE_INCLUDED_$mangled_path$
#define ORVANE_INCLUDED_$mangled_path$

#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"
#include "google/protobuf/service.h"

#include "$stem$.pb.h"
#include "zimbrel/src/core/common/rpc/service.h"
$streams$#include "zimbrel/src/core/common/rpc/version.h"

)",
             "stem", file.stem, "mangled_path", file.mangled_path, "streams",
             StreamIncludes(file));
  PrintVersionCheck(out);
}

// Prints the proto's comment on the service, then how to use the class.
void PrintClassComment(const ServiceModel& service, Printer* out) {
  if (service.comment.empty())
    out->Print("// The service $name$.\n", "name", service.full_name);
  out->PrintRaw(Comment(0, service.comment));
  out->Print(R"(//
// To serve it, derive from this class and override the methods that you serve.
)");
  if (service.Has(MethodKind::kUnary)) {
    out->Print(R"(//
// A unary method sets `response`, or calls controller->SetFailed(reason), and
// then runs `done`, exactly once: at once, or later, from any thread. What it
// was given is borrowed until `done` runs. It is called on the thread that
// calls CallMethod. Unless overridden, it fails with "Method Name() not
// implemented.".
)");
  }
  if (!service.HasStreams()) return;
  out->Print(R"(//
// A streaming method is served by its stream, without your doing. Its accessor,
// the member of the same name, is for the rest of your program: where a part of
// it holds this service and wants to publish or call, it does so through what
// the accessor returns. Override it to return orvane::Publish<T> or
// orvane::Call<T>, or a function of your own that first filters, counts or
// logs. Nothing here calls it, and unless overridden it ends the process.
)");
}

// Prints the members that every service class has, in the order of their
// virtual table slots.
void PrintCommonMembers(const ServiceModel& service, Printer* out) {
  out->Print(R"(  ~$name$() override;

  // The service as its proto declares it: the same pointer on every call, good
  // for the life of the process. Thread: any.
  static const google::protobuf::ServiceDescriptor* descriptor();

$ruler$

  const google::protobuf::ServiceDescriptor* GetDescriptor() override;
  void CallMethod(const google::protobuf::MethodDescriptor* method,
                  google::protobuf::RpcController* controller,
                  const google::protobuf::Message* request,
                  google::protobuf::Message* response,
                  google::protobuf::Closure* done) override;
  const google::protobuf::Message& GetRequestPrototype(
      const google::protobuf::MethodDescriptor* method) const override;
  const google::protobuf::Message& GetResponsePrototype(
      const google::protobuf::MethodDescriptor* method) const override;
  orvane::AbstractStream* OpenStream(
      const google::protobuf::MethodDescriptor* method,
      orvane::StreamChannel channel) override;
)",
             "name", service.name, "ruler", Ruler(2, "For transports"));
}

std::string UnaryHandler(const MethodModel& method) {
  return Declaration(
      2, "virtual void", method.name,
      {"google::protobuf::RpcController* controller",
       "const " + method.request + "* request", method.response + "* response",
       "google::protobuf::Closure* done"},
      ";");
}

std::string StreamAccessor(const MethodModel& method) {
  return Declaration(2, "virtual " + method.accessor, method.name, {}, ";");
}

void PrintMethod(const MethodModel& method, Printer* out) {
  out->PrintRaw("\n" + Comment(2, method.comment));
  out->PrintRaw(method.kind == MethodKind::kUnary ? UnaryHandler(method)
                                                  : StreamAccessor(method));
  out->PrintRaw("\n");
}

void PrintClass(const ServiceModel& service, Printer* out) {
  PrintClassComment(service, out);
  out->Print("class $name$ : public orvane::Service {\n public:\n", "name",
             service.name);
  PrintCommonMembers(service, out);
  std::optional<MethodKind> section;
  for (const MethodModel& method : service.methods) {
    if (section != method.kind) {
      section = method.kind;
      out->PrintRaw("\n" + Ruler(2, TitleOf(method.kind)) + "\n");
    }
    PrintMethod(method, out);
  }
  out->Print(R"(
 private:
  // Ends the process: `index` is not that of a unary method. Apart, so that the
  // way from CallMethod to a handler takes no stack.
  [[noreturn, gnu::noinline]] static void RefuseCall(int index);
};
)");
}

}  // namespace

void PrintHeader(const FileModel& file, Printer* out) {
  PrintTop(file, out);
  PrintNamespaceBegin(file, out);
  for (const ServiceModel& service : file.services) {
    out->PrintRaw("\n");
    PrintClass(service, out);
  }
  PrintNamespaceEnd(file, out);
  out->Print("\n#endif  // ORVANE_INCLUDED_$mangled_path$\n", "mangled_path",
             file.mangled_path);
}

}  // namespace orvane::generator
