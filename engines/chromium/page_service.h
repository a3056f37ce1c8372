// Where pages are and where they go, for hosts.

#ifndef ENGINES_CHROMIUM_PAGE_SERVICE_H_
#define ENGINES_CHROMIUM_PAGE_SERVICE_H_

#include <cstdint>
#include <map>

#include "absl/functional/function_ref.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "google/protobuf/service.h"

#include "engines/chromium/page.h"
#include "rpc/browser/page.rpc.h"

namespace chromium {

// Thread: the service thread.
class PageService final : public rpc::PageRpc {
 public:
  using Controller = google::protobuf::RpcController;
  using Closure = google::protobuf::Closure;
  using Empty = google::protobuf::Empty;

  // Unless `allows_scripts`, Evaluate fails.
  explicit PageService(bool allows_scripts) : allows_scripts_(allows_scripts) {}

  // Serves that page too, which publishes through this service. It outlives the
  // last call.
  void Add(std::uint64_t browser, Page* page) { pages_[browser] = page; }

  void Load(Controller* controller, const rpc::LoadRequest* request,
            Empty* response, Closure* done) override;
  void Reload(Controller* controller, const rpc::ReloadRequest* request,
              Empty* response, Closure* done) override;
  void Stop(Controller* controller, const BrowserId* request, Empty* response,
            Closure* done) override;
  void GoBack(Controller* controller, const BrowserId* request, Empty* response,
              Closure* done) override;
  void GoForward(Controller* controller, const BrowserId* request,
                 Empty* response, Closure* done) override;
  void GetPage(Controller* controller, const BrowserId* request,
               rpc::PageState* response, Closure* done) override;
  void GetPageIcon(Controller* controller, const BrowserId* request,
                   rpc::PageIcon* response, Closure* done) override;
  void Evaluate(Controller* controller, const rpc::EvaluateRequest* request,
                rpc::EvaluateResponse* response, Closure* done) override;

  // The pages publish events and call the host through these.
  orvane::Publisher<rpc::PageChanged> WhenPageChanged() override;
  orvane::Publisher<rpc::PageFailed> WhenPageFailed() override;
  orvane::Publisher<rpc::DownloadChanged> WhenDownloadChanged() override;
  orvane::Caller<rpc::OpenWindow> OnOpenWindow() override;
  orvane::Caller<rpc::Download> OnDownload() override;

 private:
  // The page of a browser. The error names the browsers that there are.
  absl::StatusOr<Page*> FindPage(const BrowserId& browser) const;

  // Serves a call: fails it if the browser does not exist or `serve` returns an
  // error, and runs `done`.
  void Serve(Controller* controller, const BrowserId& browser, Closure* done,
             absl::FunctionRef<absl::Status(Page&)> serve) const;

  const bool allows_scripts_;
  std::map<std::uint64_t, Page*> pages_;
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_PAGE_SERVICE_H_
