#include "engines/chromium/page_service.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "examples/widget_server/widget_service.h"

namespace chromium {
namespace {

// A call that is answered later. If it never is, since the engine ends with the
// program, it fails.
class LateAnswer {
 public:
  LateAnswer(google::protobuf::RpcController* controller,
             rpc::EvaluateResponse* response, google::protobuf::Closure* done)
      : controller_(controller), response_(response), done_(done) {}
  LateAnswer(LateAnswer&& other) noexcept
      : controller_(other.controller_),
        response_(other.response_),
        done_(std::exchange(other.done_, nullptr)) {}
  LateAnswer& operator=(LateAnswer&&) = delete;
  ~LateAnswer() {
    if (done_ != nullptr) Give(absl::UnavailableError("the page has gone"));
  }

  void Give(absl::StatusOr<rpc::EvaluateResponse> outcome) {
    if (outcome.ok()) {
      *response_ = *std::move(outcome);
    } else {
      controller_->SetFailed(std::string(outcome.status().message()));
    }
    std::exchange(done_, nullptr)->Run();
  }

 private:
  google::protobuf::RpcController* controller_;
  rpc::EvaluateResponse* response_;
  google::protobuf::Closure* done_;  // Null once it is answered.
};

}  // namespace

absl::StatusOr<Page*> PageService::FindPage(const BrowserId& browser) const {
  const auto found = pages_.find(browser.value());
  if (found != pages_.end()) return found->second;
  std::vector<std::uint64_t> browsers;
  for (const auto& [id, page] : pages_) browsers.push_back(id);
  return widget_server::NoSuchBrowser(browser.value(), std::move(browsers));
}

void PageService::Serve(Controller* controller, const BrowserId& browser,
                        Closure* done,
                        absl::FunctionRef<absl::Status(Page&)> serve) const {
  const absl::StatusOr<Page*> page = FindPage(browser);
  const absl::Status status = page.ok() ? serve(**page) : page.status();
  if (!status.ok()) controller->SetFailed(std::string(status.message()));
  done->Run();
}

void PageService::Load(Controller* controller, const rpc::LoadRequest* request,
                       Empty*, Closure* done) {
  Serve(controller, request->browser_id(), done, [&](Page& page) {
    return page.Go([&](Navigation& navigation) {
      return navigation.Load(std::string(request->address()));
    });
  });
}

void PageService::Reload(Controller* controller,
                         const rpc::ReloadRequest* request, Empty*,
                         Closure* done) {
  Serve(controller, request->browser_id(), done, [&](Page& page) {
    return page.Go([&](Navigation& navigation) {
      return navigation.Reload(request->bypass_cache());
    });
  });
}

void PageService::Stop(Controller* controller, const BrowserId* request, Empty*,
                       Closure* done) {
  Serve(controller, *request, done, [](Page& page) {
    return page.Go([](Navigation& navigation) { return navigation.Stop(); });
  });
}

void PageService::GoBack(Controller* controller, const BrowserId* request,
                         Empty*, Closure* done) {
  Serve(controller, *request, done, [](Page& page) {
    return page.Go([](Navigation& navigation) { return navigation.GoBack(); });
  });
}

void PageService::GoForward(Controller* controller, const BrowserId* request,
                            Empty*, Closure* done) {
  Serve(controller, *request, done, [](Page& page) {
    return page.Go(
        [](Navigation& navigation) { return navigation.GoForward(); });
  });
}

void PageService::GetPage(Controller* controller, const BrowserId* request,
                          rpc::PageState* response, Closure* done) {
  Serve(controller, *request, done, [&](Page& page) {
    *response = page.navigation().state();
    return absl::OkStatus();
  });
}

void PageService::GetPageIcon(Controller* controller, const BrowserId* request,
                              rpc::PageIcon* response, Closure* done) {
  Serve(controller, *request, done, [&](Page& page) {
    *response = page.navigation().icon();
    return absl::OkStatus();
  });
}

void PageService::Evaluate(Controller* controller,
                           const rpc::EvaluateRequest* request,
                           rpc::EvaluateResponse* response, Closure* done) {
  LateAnswer answer(controller, response, done);
  const absl::StatusOr<Page*> page = FindPage(request->browser_id());
  if (!page.ok()) return answer.Give(page.status());
  if (!allows_scripts_) {
    return answer.Give(absl::PermissionDeniedError(
        "this server runs no scripts for hosts; its option --allow-scripts "
        "lets it"));
  }
  (*page)->Evaluate(*request,
                    [answer = std::move(answer)](
                        absl::StatusOr<rpc::EvaluateResponse> outcome) mutable {
                      answer.Give(std::move(outcome));
                    });
}

orvane::Publisher<rpc::PageChanged> PageService::WhenPageChanged() {
  return orvane::Publish<rpc::PageChanged>;
}

orvane::Publisher<rpc::PageFailed> PageService::WhenPageFailed() {
  return orvane::Publish<rpc::PageFailed>;
}

orvane::Publisher<rpc::DownloadChanged> PageService::WhenDownloadChanged() {
  return orvane::Publish<rpc::DownloadChanged>;
}

orvane::Caller<rpc::OpenWindow> PageService::OnOpenWindow() {
  return orvane::Call<rpc::OpenWindow>;
}

orvane::Caller<rpc::Download> PageService::OnDownload() {
  return orvane::Call<rpc::Download>;
}

}  // namespace chromium
