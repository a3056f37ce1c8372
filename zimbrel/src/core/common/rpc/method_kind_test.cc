#include "zimbrel/src/core/common/rpc/method_kind.h"

#include <optional>
#include <string>

#include "google/protobuf/descriptor.pb.h"
#include "gtest/gtest.h"

#include "callback_streams/callback_streams.rpc.h"
#include "event_streams/event_streams.rpc.h"

namespace orvane {
namespace {

using google::protobuf::DescriptorPool;
using google::protobuf::FileDescriptorProto;
using google::protobuf::MethodDescriptor;

template <typename Service>
const MethodDescriptor& Find(const std::string& name) {
  return *Service::descriptor()->FindMethodByName(name);
}

// A service with one method of a chosen shape, as protoc hands it to a plugin:
// in a pool of its own.
class MethodKindTest : public ::testing::Test {
 protected:
  const MethodDescriptor& Method(const std::string& input,
                                 bool client_streaming,
                                 const std::string& output,
                                 bool server_streaming) {
    FileDescriptorProto file;
    file.set_name("method.proto");
    file.set_package("rpc");
    file.add_message_type()->set_name("EventSubscription");
    file.add_message_type()->set_name("Other");
    auto* const service = file.add_service();
    service->set_name("Service");
    auto* const method = service->add_method();
    method->set_name("Method");
    method->set_input_type(".rpc." + input);
    method->set_client_streaming(client_streaming);
    method->set_output_type(".rpc." + output);
    method->set_server_streaming(server_streaming);
    return *pool_.BuildFile(file)->service(0)->method(0);
  }

 private:
  DescriptorPool pool_;
};

TEST_F(MethodKindTest, WithoutStreamsIsUnaryWhateverTheTypes) {
  EXPECT_EQ(KindOf(Method("EventSubscription", false, "Other", false)),
            MethodKind::kUnary);
}

TEST_F(MethodKindTest, TakingSubscriptionsIsAnEventStream) {
  EXPECT_EQ(KindOf(Method("EventSubscription", true, "Other", true)),
            MethodKind::kEventStream);
}

TEST_F(MethodKindTest, OneTypeBothWaysIsACallbackStream) {
  EXPECT_EQ(KindOf(Method("Other", true, "Other", true)),
            MethodKind::kCallbackStream);
}

TEST_F(MethodKindTest, SubscriptionsBothWaysAreAnEventStream) {
  EXPECT_EQ(
      KindOf(Method("EventSubscription", true, "EventSubscription", true)),
      MethodKind::kEventStream);
}

TEST_F(MethodKindTest, TwoTypesWithoutSubscriptionsAreOfNoKind) {
  EXPECT_EQ(KindOf(Method("Other", true, "EventSubscription", true)),
            std::nullopt);
}

TEST_F(MethodKindTest, StreamsOfTheClientAloneAreOfNoKind) {
  EXPECT_EQ(KindOf(Method("EventSubscription", true, "Other", false)),
            std::nullopt);
}

TEST_F(MethodKindTest, StreamsOfTheServerAloneAreOfNoKind) {
  EXPECT_EQ(KindOf(Method("Other", false, "Other", true)), std::nullopt);
}

TEST(KeyTypeTest, OfAnEventStreamIsWhatItsSubscriptionsHold) {
  EXPECT_EQ(&KeyTypeOf(Find<testdata::EventStreams>("WhenTicked")),
            BrowserId::descriptor());
}

TEST(KeyTypeTest, OfSubscriptionsBothWaysIsWhatTheyHold) {
  EXPECT_EQ(&KeyTypeOf(Find<testdata::EventStreams>("WhenSubscribed")),
            BrowserId::descriptor());
}

TEST(KeyTypeTest, OfACallbackStreamIsThatOfItsOwnKeyField) {
  EXPECT_EQ(&KeyTypeOf(Find<testdata::CallbackStreams>("OnKnock")),
            testdata::Knock::Key::descriptor());
}

}  // namespace
}  // namespace orvane
