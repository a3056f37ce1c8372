// Files that a page offers, saved where the host says.

#ifndef ENGINES_CHROMIUM_DOWNLOADS_H_
#define ENGINES_CHROMIUM_DOWNLOADS_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"

#include "engines/chromium/engine_pipe.h"
#include "engines/chromium/worker.h"
#include "rpc/browser/page.rpc.h"
#include "zimbrel/src/core/common/rpc/calling.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace chromium {

// A private folder that the engine downloads into; it goes with this object.
class DownloadFolder {
 public:
  // Below the system's folder for temporary files. Removes what processes have
  // left there that were killed.
  static absl::StatusOr<std::unique_ptr<DownloadFolder>> Make();

  DownloadFolder(const DownloadFolder&) = delete;
  DownloadFolder& operator=(const DownloadFolder&) = delete;
  ~DownloadFolder();

  const std::string& path() const { return path_; }

 private:
  DownloadFolder(std::string path, orvane::OwnedDescriptor lock)
      : path_(std::move(path)), lock_(std::move(lock)) {}

  const std::string path_;
  const orvane::OwnedDescriptor lock_;  // Held as long as this process lives.
};

// The engine downloads while the host is asked, and what is complete is copied
// to where the host wants it, by a thread. If nobody serves downloads or the
// call fails, the file is not kept.
//
// Thread: the service thread. Lifetime: loop and service outlive it.
class Downloads {
 public:
  // Stops a download of the engine's.
  using Cancel = std::function<void(const std::string& guid)>;

  Downloads(orvane::EventLoop* loop, BrowserId browser, std::string folder,
            rpc::PageRpc* service, Cancel cancel);
  Downloads(const Downloads&) = delete;
  Downloads& operator=(const Downloads&) = delete;
  ~Downloads();

  // An event of the page's main session.
  void OnEvent(const EngineEvent& event);

  // The page is gone, and its downloads with it.
  void Reset();

 private:
  struct Download {
    std::uint64_t id = 0;
    std::string path;  // Where the host wants it. Empty: not known yet.
    bool is_complete = false;
    std::uint64_t received_bytes = 0;
    std::uint64_t total_bytes = 0;
    absl::Time told = absl::InfinitePast();  // The host, last.
    orvane::CallHandle call;
  };

  void Begin(const std::string& guid, const Json& params);
  void TakeAnswer(const std::string& guid,
                  const absl::StatusOr<rpc::DownloadResponse>& answer);
  void TakeProgress(const std::string& guid, const Json& params);
  void Deliver(const std::string& guid);
  void End(const std::string& guid, const absl::Status& outcome);
  void Drop(const std::string& guid);
  void Tell(Download& download, rpc::DownloadStatus status,
            const std::string& error);
  std::string FileOf(const std::string& guid) const;

  const std::shared_ptr<orvane::Mailbox> mailbox_;
  const BrowserId browser_;
  const std::string folder_;
  rpc::PageRpc* const service_;
  const Cancel cancel_;
  std::uint64_t last_id_ = 0;
  std::map<std::string, Download> downloads_;  // By the engine's name.
  std::unique_ptr<Worker> worker_;             // From the first copy on.
  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_DOWNLOADS_H_
