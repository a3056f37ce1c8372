#include "zimbrel/src/core/common/rpc/generator/source_printer.h"

#include <string>

#include "zimbrel/src/core/common/rpc/generator/common_printer.h"
#include "zimbrel/src/core/common/rpc/generator/layout.h"

namespace orvane::generator {
namespace {

using google::protobuf::io::Printer;

// The top of the file and what its services share ----------------------------

void PrintTop(const FileModel& file, Printer* out) {
  PrintOrigin(file, out);
  out->Print(R"(#include "$stem$.rpc.h"

#include <array>
#include <iterator>
#include <mutex>
$utility$
#include "absl/log/log.h"
#include "google/protobuf/generated_message_reflection.h"
)",
             "stem", file.stem, "utility",
             file.HasStreams() ? "#include <utility>\n" : "");
}

void PrintBinding(const FileModel& file, Printer* out) {
  const std::string table = "&descriptor_table_" + file.mangled_path;
  const std::string slots =
      "file_level_service_descriptors_" + file.mangled_path;
  out->Print(R"(
namespace {

// What fatal log entries name as their source file.
$source_path$

)",
             "source_path",
             Assignment(0, "constexpr char kSourcePath[]",
                        "\"" + file.log_path + "\""));
  PrintRegistration(file, out);
  out->Print(R"(
std::once_flag init_service_descriptors_flag;

// One slot for each service of the proto.
std::array<const google::protobuf::ServiceDescriptor*, $count$>
    $slots$;

void AssignDescriptors() {
  const auto* pool = google::protobuf::DescriptorPool::generated_pool();
$find_file$
$take_slots$
  for (int i = 0; i < file->service_count(); ++i) {
    // Message code with more services than slots is that of another proto.
    if (i >= std::ssize(slots)) __builtin_trap();
    slots[i] = file->service(i);
  }
}

// The descriptor of the proto's service `i`, bound on first use.
const google::protobuf::ServiceDescriptor* ServiceDescriptorAt(int i) {
$assign_table$
  std::call_once(init_service_descriptors_flag, AssignDescriptors);
$take_slots$
  return slots[i];
}

}  // namespace
)",
             "slots", slots, "count", std::to_string(file.services.size()),
             "find_file",
             Assignment(2, "const google::protobuf::FileDescriptor* file",
                        "pool->FindFileByName(\"" + file.path + "\")"),
             "take_slots", Assignment(2, "auto& slots", slots), "assign_table",
             Call(2, "google::protobuf::internal::AssignDescriptors", {table}));
}

// Members of every service class ---------------------------------------------

// The head of a member's definition.
std::string Definition(const ServiceModel& service, const std::string& type,
                       const std::string& member,
                       const std::vector<std::string>& parameters,
                       const std::string& end = " {") {
  return Declaration(0, type, service.name + "::" + member, parameters, end);
}

// A parameter's name as it follows its type; commented out if it is not used.
std::string Named(const std::string& name, bool is_used) {
  return is_used ? " " + name : " /*" + name + "*/";
}

void PrintSection(const std::string& title, Printer* out) {
  out->PrintRaw("\n" + Ruler(0, title) + "\n\n");
}

void PrintCase(const MethodModel& method, Printer* out) {
  out->Print("    case $index$:  // $name$\n", "index",
             std::to_string(method.index), "name", method.proto_name);
}

// Prints the end of a switch over the methods, and of its function.
void PrintBadIndex(Printer* out) {
  out->Print(R"(    default:
      LOG(FATAL).AtLocation(kSourcePath, __LINE__)
          << "Bad method index; this should never happen.";
  }
}
)");
}

void PrintDescriptor(const ServiceModel& service, Printer* out) {
  const std::string type = "const google::protobuf::ServiceDescriptor*";
  out->Print(R"($name$::~$name$() = default;

$descriptor$
  return ServiceDescriptorAt($index$);
}

$get_descriptor$
  return descriptor();
}
)",
             "name", service.name, "index", std::to_string(service.index),
             "descriptor", Definition(service, type, "descriptor", {}),
             "get_descriptor", Definition(service, type, "GetDescriptor", {}));
}

void PrintPrototypes(const ServiceModel& service, const std::string& member,
                     std::string MethodModel::*type, Printer* out) {
  out->PrintRaw(Definition(service, "const google::protobuf::Message&", member,
                           {"const google::protobuf::MethodDescriptor* method"},
                           " const {"));
  out->PrintRaw("\n  switch (method->index()) {\n");
  for (const MethodModel& method : service.methods) {
    PrintCase(method, out);
    out->Print("      return $type$::default_instance();\n", "type",
               method.*type);
  }
  PrintBadIndex(out);
}

// CallMethod -----------------------------------------------------------------

void PrintHandlerCase(const MethodModel& method, Printer* out) {
  PrintCase(method, out);
  out->PrintRaw(
      Call(6, method.name,
           {"controller", "static_cast<const " + method.request + "*>(request)",
            "static_cast<" + method.response + "*>(response)", "done"}));
  out->PrintRaw("\n      break;\n");
}

void PrintCallMethod(const ServiceModel& service, Printer* out) {
  const bool is_used = service.Has(MethodKind::kUnary);
  out->PrintRaw(Definition(
      service, "void", "CallMethod",
      {"const google::protobuf::MethodDescriptor* method",
       "google::protobuf::RpcController*" + Named("controller", is_used),
       "const google::protobuf::Message*" + Named("request", is_used),
       "google::protobuf::Message*" + Named("response", is_used),
       "google::protobuf::Closure*" + Named("done", is_used)}));
  out->PrintRaw("\n  switch (method->index()) {\n");
  for (const MethodModel& method : service.methods) {
    if (method.kind == MethodKind::kUnary) PrintHandlerCase(method, out);
  }
  out->Print(R"(    default:
      RefuseCall(method->index());
  }
}
)");
}

void PrintRefusalCase(const MethodModel& method, Printer* out) {
  PrintCase(method, out);
  out->Print(R"(      LOG(FATAL).AtLocation(kSourcePath, __LINE__)
          << "Streaming method can't be called with this call.";
)");
}

void PrintRefuseCall(const ServiceModel& service, Printer* out) {
  out->PrintRaw(Definition(service, "void", "RefuseCall", {"int index"}));
  out->PrintRaw("\n  switch (index) {\n");
  for (const MethodModel& method : service.methods) {
    if (method.kind != MethodKind::kUnary) PrintRefusalCase(method, out);
  }
  PrintBadIndex(out);
}

// OpenStream -----------------------------------------------------------------

void PrintOpenCase(const MethodModel& method, Printer* out) {
  PrintCase(method, out);
  if (method.kind == MethodKind::kUnary) {
    out->Print(R"(      LOG(FATAL).AtLocation(kSourcePath, __LINE__)
          << "Cannot open a stream for a non-streaming method.";
)");
    return;
  }
  out->PrintRaw(Call(6, "return new " + method.stream,
                     {"this", "method", "std::move(channel)"}) +
                "\n");
}

void PrintOpenStream(const ServiceModel& service, Printer* out) {
  out->PrintRaw(Definition(
      service, "orvane::AbstractStream*", "OpenStream",
      {"const google::protobuf::MethodDescriptor* method",
       "orvane::StreamChannel" + Named("channel", service.HasStreams())}));
  out->PrintRaw("\n  switch (method->index()) {\n");
  for (const MethodModel& method : service.methods) PrintOpenCase(method, out);
  PrintBadIndex(out);
}

// Default bodies -------------------------------------------------------------

void PrintUnaryBody(const ServiceModel& service, const MethodModel& method,
                    Printer* out) {
  out->Print(R"(
$head$
$fail$
  done->Run();
}
)",
             "fail",
             Call(2, "controller->SetFailed",
                  {"\"Method " + method.proto_name + "() not implemented.\""}),
             "head",
             Definition(service, "void", method.name,
                        {"google::protobuf::RpcController* controller",
                         "const " + method.request + "* /*request*/",
                         method.response + "* /*response*/",
                         "google::protobuf::Closure* done"}));
}

void PrintAccessorBody(const ServiceModel& service, const MethodModel& method,
                       Printer* out) {
  out->Print(R"(
$head$
  LOG(FATAL).AtLocation(kSourcePath, __LINE__) << "Not implemented.";
}
)",
             "head", Definition(service, method.accessor, method.name, {}));
}

void PrintDefaultBody(const ServiceModel& service, const MethodModel& method,
                      Printer* out) {
  if (method.kind == MethodKind::kUnary) {
    PrintUnaryBody(service, method, out);
  } else {
    PrintAccessorBody(service, method, out);
  }
}

void PrintService(const ServiceModel& service, Printer* out) {
  PrintSection(service.name, out);
  PrintDescriptor(service, out);
  PrintSection("Prototypes", out);
  PrintPrototypes(service, "GetRequestPrototype", &MethodModel::request, out);
  out->PrintRaw("\n");
  PrintPrototypes(service, "GetResponsePrototype", &MethodModel::response, out);
  PrintSection("Dispatch", out);
  PrintCallMethod(service, out);
  out->PrintRaw("\n");
  PrintRefuseCall(service, out);
  out->PrintRaw("\n");
  PrintOpenStream(service, out);
  if (service.methods.empty()) return;
  out->PrintRaw("\n" + Ruler(0, "Methods that are not overridden") + "\n");
  for (const MethodModel& method : service.methods)
    PrintDefaultBody(service, method, out);
}

}  // namespace

void PrintSource(const FileModel& file, Printer* out) {
  PrintTop(file, out);
  PrintBinding(file, out);
  PrintNamespaceBegin(file, out);
  for (const ServiceModel& service : file.services) PrintService(service, out);
  PrintNamespaceEnd(file, out);
}

}  // namespace orvane::generator
