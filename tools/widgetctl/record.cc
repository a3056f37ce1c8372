#include "tools/widgetctl/record.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <system_error>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "google/protobuf/descriptor.h"

#include "rpc/transport/stream_message.pb.h"
#include "tools/widgetctl/methods.h"
#include "tools/widgetctl/recorder.h"
#include "tools/widgetctl/trace.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"
#include "zimbrel/src/core/common/rpc/printable.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"
#include "zimbrel/src/core/common/rpc/version.h"

namespace widgetctl {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::ServiceDescriptor;

// The names of all fields in the type and in what it consists of.
void AddFields(const Descriptor* type, std::set<const Descriptor*>& seen,
               std::set<std::string>& names) {
  if (!seen.insert(type).second) return;
  for (int i = 0; i < type->field_count(); ++i) {
    const auto* const field = type->field(i);
    names.emplace(field->json_name());
    if (field->message_type() != nullptr)
      AddFields(field->message_type(), seen, names);
  }
}

// Only this user may read what users do.
absl::Status Begin(const std::string& path, std::ofstream* file) {
  constexpr mode_t kOnlyThisUser = 0600;
  // A pipe without a reader is an error, in place of a wait for one.
  const orvane::OwnedDescriptor created(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK,
             kOnlyThisUser));
  if (created.get() >= 0) {
    file->open(path);
    *file << "# Recorded by widgetctl " << orvane::kVersion << ".\n"
          << std::flush;
    if (*file) return absl::OkStatus();
  }
  return absl::UnknownError(
      absl::StrCat("cannot write ", path, ": ", std::strerror(errno)));
}

// Each varying name is one of a field or of an event stream.
absl::Status CheckVarying(const Options& options) {
  std::set<const Descriptor*> seen;
  std::set<std::string> names;
  for (const ServiceDescriptor* const service : options.services) {
    for (int i = 0; i < service->method_count(); ++i) {
      const auto* const method = service->method(i);
      AddFields(method->output_type(), seen, names);
      if (orvane::KindOf(*method) == orvane::MethodKind::kEventStream)
        names.emplace(method->name());
    }
  }
  for (const std::string& name : options.varying) {
    if (!names.contains(name)) {
      return absl::NotFoundError(
          absl::StrCat("--varying: no field or event stream ", name,
                       DidYouMean(name, names)));
    }
  }
  return absl::OkStatus();
}

// Says what becomes of each connection, so that the user knows that something
// is being recorded, and when the file cannot be written any more.
class TellingRecorder final : public Recorder {
 public:
  TellingRecorder(const Options& options, std::string path, std::ofstream* file)
      : Recorder({{options.varying.begin(), options.varying.end()},
                  options.has_text},
                 file),
        path_(std::move(path)),
        file_(file) {}

  bool is_complete() const { return is_complete_; }

  void OnConnected(int connection, const absl::Status& joined) override {
    std::cout << "connection " << connection;
    if (!joined.ok()) {
      std::cout << " is refused: " << orvane::Printable(joined.message());
    }
    std::cout << std::endl;
  }

  void OnSaid(int connection, Said said) override {
    if (said.what == "hello" && said.from == Side::kHost &&
        said.payload != nullptr && said.service == nullptr) {
      const auto& hello =
          static_cast<const rpc::transport::Hello&>(*said.payload);
      std::cout << "connection " << connection << " is for "
                << orvane::Printable(hello.service())
                << ", of which nothing is recorded" << std::endl;
    }
    Recorder::OnSaid(connection, std::move(said));
  }

  void OnPause() override {
    Recorder::OnPause();
    if (!is_complete_) return;
    if (*file_) {
      bytes_of_whole_lines_ = file_->tellp();
      return;
    }
    const int error = errno;
    is_complete_ = false;
    file_->close();  // It tries to write the rest again, which is cut off here.
    std::error_code ignored;
    if (bytes_of_whole_lines_ > 0) {
      std::filesystem::resize_file(
          path_, static_cast<std::uintmax_t>(bytes_of_whole_lines_), ignored);
    }
    Fail(kUsage,
         absl::StrCat("cannot write ", path_, ": ", std::strerror(error),
                      "; the recording is not complete"));
  }

  void OnEnded(int connection) override {
    Recorder::OnEnded(connection);
    std::cout << "connection " << connection << " has ended" << std::endl;
  }

 private:
  const std::string path_;
  std::ofstream* const file_;
  bool is_complete_ = true;
  std::streamoff bytes_of_whole_lines_ = 0;  // -1 in a pipe.
};

}  // namespace

ExitCode Record(const Options& options,
                const std::vector<std::string>& file_and_path) {
  if (const absl::Status varying = CheckVarying(options); !varying.ok())
    return Fail(kUsage, varying.message());
  const std::string& path = file_and_path[0];
  const std::string hosts = file_and_path.size() > 1
                                ? file_and_path[1]
                                : orvane::DefaultSocketPath("widget");
  std::ofstream file;
  TellingRecorder recorder(options, path, &file);
  const ExitCode intercepted = Intercept(
      options, hosts, /*wants_payloads=*/true, &recorder,
      [&] {
        absl::Status begun = Begin(path, &file);
        if (begun.ok()) std::cout << "hosts connect to " << hosts << std::endl;
        return begun;
      },
      nullptr);
  if (intercepted != kOk) return intercepted;
  recorder.Finish();
  return recorder.is_complete() ? kOk : kUsage;
}

}  // namespace widgetctl
