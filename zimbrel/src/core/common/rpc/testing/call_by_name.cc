#include "zimbrel/src/core/common/rpc/testing/call_by_name.h"

#include <memory>

#include "absl/log/log.h"
#include "google/protobuf/descriptor.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/testing/text.h"

namespace orvane::testing {

using google::protobuf::Message;
using google::protobuf::MessageFactory;
using google::protobuf::MethodDescriptor;

namespace {

std::unique_ptr<Message> NewMessage(const google::protobuf::Descriptor* type) {
  return std::unique_ptr<Message>(
      MessageFactory::generated_factory()->GetPrototype(type)->New());
}

}  // namespace

absl::Status CallByName(orvane::SocketClient* client, const std::string& method,
                        const std::string& request, Message* response) {
  const MethodDescriptor* const found =
      rpc::BrowserWidgetRpc::descriptor()->FindMethodByName(method);
  if (found == nullptr) LOG(FATAL) << "no method " << method;
  const std::unique_ptr<Message> sent = NewMessage(found->input_type());
  Parse(request, sent.get());
  const auto answer = client->CallAndWait(found, *sent);
  if (answer.ok() && response != nullptr) response->CopyFrom(**answer);
  return answer.status();
}

}  // namespace orvane::testing
