#include "examples/widget_server/browsers_service.h"

namespace widget_server {

void BrowsersService::ListBrowsers(google::protobuf::RpcController*,
                                   const google::protobuf::Empty*,
                                   rpc::BrowserList* response,
                                   google::protobuf::Closure* done) {
  for (const auto& [browser, widget] : widgets_->widgets()) {
    rpc::BrowserInfo& info = *response->add_browsers();
    info.mutable_browser_id()->set_value(browser);
    info.set_attached(widget.is_attached());
  }
  done->Run();
}

}  // namespace widget_server
