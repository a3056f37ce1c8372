// Nothing but the generated class and the runtime: fails to link if the class
// asks for more.

#include "rpc/browser/browser_widget.rpc.h"

int main() {
  rpc::BrowserWidgetRpc service;
  return service.GetDescriptor() == rpc::BrowserWidgetRpc::descriptor() ? 0 : 1;
}
