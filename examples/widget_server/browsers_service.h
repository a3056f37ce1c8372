// Which browsers a widget process has, for hosts.

#ifndef EXAMPLES_WIDGET_SERVER_BROWSERS_SERVICE_H_
#define EXAMPLES_WIDGET_SERVER_BROWSERS_SERVICE_H_

#include "google/protobuf/empty.pb.h"
#include "google/protobuf/service.h"

#include "examples/widget_server/widget_service.h"
#include "rpc/browser/browsers.rpc.h"

namespace widget_server {

// Thread: the service thread. `widgets` outlives it.
class BrowsersService final : public rpc::BrowsersRpc {
 public:
  explicit BrowsersService(const WidgetService* widgets) : widgets_(widgets) {}

  void ListBrowsers(google::protobuf::RpcController* controller,
                    const google::protobuf::Empty* request,
                    rpc::BrowserList* response,
                    google::protobuf::Closure* done) override;

 private:
  const WidgetService* const widgets_;
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_BROWSERS_SERVICE_H_
