#include "engines/chromium/downloads.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "absl/log/log.h"
#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

#include "engines/chromium/engine_process.h"
#include "zimbrel/src/core/common/rpc/printable.h"

namespace chromium {
namespace {

// At a time. A page can offer any number.
constexpr std::size_t kMaxDownloads = 16;

constexpr absl::Duration kTellInterval = absl::Milliseconds(100);

// Of most file systems.
constexpr std::size_t kMaxNameBytes = 255;

// The page or its server chooses the name.
std::string SafeName(absl::string_view name) {
  name.remove_prefix(name.find_last_of('/') + 1);  // npos + 1 is 0.
  std::string safe(name.substr(0, kMaxNameBytes));
  for (char& c : safe) {
    if (absl::ascii_iscntrl(static_cast<unsigned char>(c))) c = '_';
  }
  return safe.empty() || safe == "." || safe == ".." ? "download" : safe;
}

// So that what is at `to` is always a whole file. The copy is ours, whoever the
// engine runs as.
absl::Status CopyFile(const std::filesystem::path& from,
                      const std::filesystem::path& to) {
  const std::filesystem::path part = to.string() + ".part";
  std::error_code error;
  // A device or a pipe would be replaced.
  const std::filesystem::file_status before =
      std::filesystem::status(to, error);
  if (std::filesystem::exists(before) &&
      !std::filesystem::is_regular_file(before)) {
    return absl::FailedPreconditionError(absl::StrCat(
        orvane::Printable(to.string()),
        " cannot be written: it exists and is not a regular file"));
  }
  std::filesystem::copy_file(
      from, part, std::filesystem::copy_options::overwrite_existing, error);
  if (!error) std::filesystem::rename(part, to, error);
  if (!error) return absl::OkStatus();
  std::error_code ignored;
  std::filesystem::remove(part, ignored);
  return absl::UnknownError(absl::StrCat(
      orvane::Printable(to.string()), " cannot be written: ", error.message()));
}

// The names are the engine's own: letters, digits and hyphens.
bool IsName(const std::string& guid) {
  return !guid.empty() &&
         std::all_of(guid.begin(), guid.end(), [](unsigned char c) {
           return absl::ascii_isalnum(c) || c == '-';
         });
}

std::uint64_t BytesOf(const Json& params, const char* name) {
  return static_cast<std::uint64_t>(
      std::clamp(Number(params, name), 0.0, 9e15));
}

constexpr absl::string_view kFolderName = "orvane-chromium-";

// Below 0 if it fails, with errno.
orvane::OwnedDescriptor LockFolder(const std::string& path, int options) {
  orvane::OwnedDescriptor folder(
      ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (folder.get() < 0 || ::flock(folder.get(), LOCK_EX | options) == 0)
    return folder;
  return orvane::OwnedDescriptor(-1);
}

// By processes that were killed.
void RemoveWhatWasLeft(const std::filesystem::path& parent) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(parent, error), end;
       !error && entry != end; entry.increment(error)) {
    const std::filesystem::path& path = entry->path();
    if (!absl::StartsWith(path.filename().string(), kFolderName)) continue;
    const auto lock = LockFolder(path.string(), LOCK_NB);
    struct stat found = {};
    std::error_code ignored;
    if (lock.get() >= 0 && ::fstat(lock.get(), &found) == 0 &&
        found.st_uid == (::geteuid() == 0 ? kUnprivilegedUser : ::geteuid()))
      std::filesystem::remove_all(path, ignored);
  }
}

}  // namespace

absl::StatusOr<std::unique_ptr<DownloadFolder>> DownloadFolder::Make() {
  std::error_code error;
  const std::filesystem::path parent =
      std::filesystem::temp_directory_path(error);
  if (!error) RemoveWhatWasLeft(parent);
  std::string path = (parent / absl::StrCat(kFolderName, "XXXXXX")).string();
  if (error || ::mkdtemp(path.data()) == nullptr) {
    return absl::UnavailableError(
        absl::StrCat("no folder for downloads at ", path, ": ",
                     error ? error.message() : std::strerror(errno)));
  }
  if (::geteuid() == 0 &&
      ::chown(path.c_str(), kUnprivilegedUser, kUnprivilegedUser) != 0) {
    return absl::UnavailableError(absl::StrCat(
        path, " cannot be given to the engine: ", std::strerror(errno)));
  }
  orvane::OwnedDescriptor lock = LockFolder(path, 0);
  // Another process has just taken it for one that was left.
  if (!std::filesystem::exists(path, error)) return Make();
  if (lock.get() < 0) {
    return absl::UnavailableError(
        absl::StrCat(path, " cannot be locked: ", std::strerror(errno)));
  }
  return std::unique_ptr<DownloadFolder>(
      new DownloadFolder(path, std::move(lock)));
}

DownloadFolder::~DownloadFolder() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
  if (error) LOG(WARNING) << path_ << " stays: " << error.message();
}

Downloads::Downloads(orvane::EventLoop* loop, BrowserId browser,
                     std::string folder, rpc::PageRpc* service, Cancel cancel)
    : mailbox_(loop->mailbox()),
      browser_(std::move(browser)),
      folder_(std::move(folder)),
      service_(service),
      cancel_(std::move(cancel)) {}

Downloads::~Downloads() {
  for (auto& [guid, download] : downloads_) download.call.Cancel();
}

std::string Downloads::FileOf(const std::string& guid) const {
  return folder_ + "/" + guid;
}

void Downloads::OnEvent(const EngineEvent& event) {
  const std::string& guid = Text(event.params, "guid");
  if (!IsName(guid)) return;
  if (event.method == "Page.downloadWillBegin") {
    Begin(guid, event.params);
  } else if (event.method == "Page.downloadProgress") {
    TakeProgress(guid, event.params);
  }
}

void Downloads::Begin(const std::string& guid, const Json& params) {
  if (downloads_.size() == kMaxDownloads) {
    LOG_EVERY_N_SEC(WARNING, 10)
        << "browser " << browser_.value() << " has " << kMaxDownloads
        << " downloads, the limit; another one is not begun";
    cancel_(guid);
    return;
  }
  Download& download = downloads_[guid];
  download.id = ++last_id_;
  rpc::DownloadCall call;
  call.set_download_id(download.id);
  call.set_address(Text(params, "url"));
  call.set_suggested_name(SafeName(Text(params, "suggestedFilename")));
  download.call = service_->OnDownload()(
      browser_, std::move(call),
      [this, guid, alive = std::weak_ptr<bool>(alive_)](
          const absl::StatusOr<rpc::DownloadResponse>& answer) {
        if (!alive.expired()) TakeAnswer(guid, answer);
      },
      {});
}

void Downloads::TakeAnswer(
    const std::string& guid,
    const absl::StatusOr<rpc::DownloadResponse>& answer) {
  const auto found = downloads_.find(guid);
  if (found == downloads_.end()) return;
  Download& download = found->second;
  download.call = {};
  if (!answer.ok() || answer->path().empty()) {
    Drop(guid);
    return;
  }
  download.path = std::string(answer->path());
  // A NUL would end the path for the system.
  if (!std::filesystem::path(download.path).is_absolute() ||
      download.path.find('\0') != std::string::npos) {
    End(guid, absl::InvalidArgumentError(
                  absl::StrCat("'", orvane::Printable(download.path),
                               "' is not an absolute path")));
  } else if (download.is_complete) {
    Deliver(guid);
  } else {
    Tell(download, rpc::DOWNLOAD_STATUS_IN_PROGRESS, "");
  }
}

void Downloads::TakeProgress(const std::string& guid, const Json& params) {
  const auto found = downloads_.find(guid);
  if (found == downloads_.end()) return;
  Download& download = found->second;
  download.received_bytes = BytesOf(params, "receivedBytes");
  download.total_bytes = BytesOf(params, "totalBytes");
  const std::string& state = Text(params, "state");
  if (state == "completed") {
    if (std::exchange(download.is_complete, true)) return;
    if (!download.path.empty()) Deliver(guid);
  } else if (state == "canceled") {
    End(guid, absl::AbortedError("the download was broken off"));
  } else if (!download.path.empty() &&
             absl::Now() - download.told >= kTellInterval) {
    Tell(download, rpc::DOWNLOAD_STATUS_IN_PROGRESS, "");
  }
}

void Downloads::Deliver(const std::string& guid) {
  if (worker_ == nullptr) worker_ = std::make_unique<Worker>();
  worker_->Post([this, guid, from = FileOf(guid), to = downloads_[guid].path,
                 mailbox = mailbox_, alive = std::weak_ptr<bool>(alive_)] {
    mailbox->Post([this, guid, alive, outcome = CopyFile(from, to)] {
      if (!alive.expired()) End(guid, outcome);
    });
  });
}

void Downloads::End(const std::string& guid, const absl::Status& outcome) {
  const auto found = downloads_.find(guid);
  if (found == downloads_.end()) return;
  if (!found->second.path.empty()) {
    Tell(found->second,
         outcome.ok() ? rpc::DOWNLOAD_STATUS_COMPLETED
                      : rpc::DOWNLOAD_STATUS_FAILED,
         std::string(outcome.message()));
  }
  Drop(guid);
}

void Downloads::Drop(const std::string& guid) {
  auto dropped = downloads_.extract(guid);
  dropped.mapped().call.Cancel();
  if (!dropped.mapped().is_complete) cancel_(guid);
  std::error_code error;
  std::filesystem::remove(FileOf(guid), error);
  // What the engine has received of one that failed, such as on a full disk.
  std::filesystem::remove(FileOf(guid) + ".crdownload", error);
}

void Downloads::Reset() {
  while (!downloads_.empty()) {
    End(downloads_.begin()->first, absl::UnavailableError("the page has gone"));
  }
}

void Downloads::Tell(Download& download, rpc::DownloadStatus status,
                     const std::string& error) {
  download.told = absl::Now();
  rpc::DownloadChanged event;
  *event.mutable_browser_id() = browser_;
  event.set_download_id(download.id);
  event.set_status(status);
  event.set_received_bytes(download.received_bytes);
  event.set_total_bytes(download.total_bytes);
  event.set_error(error);
  service_->WhenDownloadChanged()(browser_, event);
}

}  // namespace chromium
