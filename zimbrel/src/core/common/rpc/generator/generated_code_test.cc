// Runs the committed output of single generator features.

#include <memory>
#include <string>

#include "google/protobuf/descriptor.h"
#include "google/protobuf/empty.pb.h"
#include "gtest/gtest.h"

#include "empty_service/empty_service.rpc.h"
#include "imported_types/imported_types.rpc.h"
#include "mixed_kinds/mixed_kinds.rpc.h"
#include "no_package/no_package.rpc.h"
#include "reserved_words/reserved_words.rpc.h"
#include "several_services/several_services.rpc.h"
#include "zimbrel/src/core/common/rpc/generator/recorded_call.h"

namespace testdata {
namespace {

using google::protobuf::Empty;
using google::protobuf::Message;
using google::protobuf::RpcController;
using orvane::generator::RecordedCall;

// Calls a method with empty messages of its types.
void Call(orvane::Service* service, const std::string& method_name,
          RecordedCall* call) {
  const auto* method = service->GetDescriptor()->FindMethodByName(method_name);
  ASSERT_NE(method, nullptr);
  const std::unique_ptr<Message> request(
      service->GetRequestPrototype(method).New());
  const std::unique_ptr<Message> response(
      service->GetResponsePrototype(method).New());
  service->CallMethod(method, call, request.get(), response.get(), call);
}

TEST(SeveralServices, EachHasItsOwnDescriptor) {
  EXPECT_EQ(First::descriptor()->full_name(), "testdata.First");
  EXPECT_EQ(Second::descriptor()->full_name(), "testdata.Second");
  EXPECT_EQ(Third::descriptor()->full_name(), "testdata.Third");
  EXPECT_EQ(Third().GetDescriptor(), Third::descriptor());
}

TEST(EmptyService, HasADescriptorWithoutMethods) {
  ASSERT_NE(EmptyService::descriptor(), nullptr);
  EXPECT_EQ(EmptyService::descriptor()->method_count(), 0);
}

TEST(EmptyServiceDeathTest, RefusesEveryIndex) {
  EmptyService service;
  RecordedCall call;
  const auto* method = First::descriptor()->method(0);
  EXPECT_DEATH(service.GetRequestPrototype(method), "Bad method index");
  EXPECT_DEATH(service.GetResponsePrototype(method), "Bad method index");
  EXPECT_DEATH(service.CallMethod(method, &call, nullptr, nullptr, &call),
               "Bad method index");
  EXPECT_DEATH(service.OpenStream(method, orvane::StreamChannel(nullptr)),
               "Bad method index");
}

class Stopper final : public MixedKinds {
 public:
  void Stop(RpcController* /*controller*/, const BrowserId* /*request*/,
            Empty* /*response*/, google::protobuf::Closure* done) override {
    ++stops;
    done->Run();
  }

  int stops = 0;
};

TEST(MixedKinds, UnaryMethodsBetweenStreamsReachTheirHandlers) {
  Stopper service;
  RecordedCall stop;
  Call(&service, "Stop", &stop);
  EXPECT_EQ(service.stops, 1);
  EXPECT_FALSE(stop.Failed());
  RecordedCall go;
  Call(&service, "Go", &go);
  EXPECT_EQ(go.ErrorText(), "Method Go() not implemented.");
  EXPECT_EQ(service.stops, 1);
}

TEST(MixedKindsDeathTest, StreamsBetweenUnaryMethodsKeepTheirKind) {
  MixedKinds service;
  RecordedCall call;
  EXPECT_DEATH(Call(&service, "OnAsk", &call), "Streaming method can't");
  EXPECT_DEATH(service.OpenStream(MixedKinds::descriptor()->method(2),
                                  orvane::StreamChannel(nullptr)),
               "Cannot open a stream");
}

TEST(ReservedWords, ErrorTextsSpellMethodsAsTheProtoDoes) {
  template_ service;
  RecordedCall call;
  Call(&service, "co_await", &call);
  EXPECT_EQ(call.ErrorText(), "Method co_await() not implemented.");
}

TEST(ReservedWords, NestedMessagesAreWhatTheProtoNames) {
  EXPECT_EQ(
      template_()
          .GetRequestPrototype(template_::descriptor()->FindMethodByName("new"))
          .GetDescriptor()
          ->full_name(),
      "testdata.operator.typename");
}

TEST(ImportedTypes, PrototypesAreThoseOfTheDescriptor) {
  types::ImportedTypes service;
  const auto* descriptor = types::ImportedTypes::descriptor();
  for (int i = 0; i < descriptor->method_count(); ++i) {
    const auto* method = descriptor->method(i);
    EXPECT_EQ(service.GetRequestPrototype(method).GetDescriptor(),
              method->input_type());
    EXPECT_EQ(service.GetResponsePrototype(method).GetDescriptor(),
              method->output_type());
  }
}

TEST(NoPackage, IsCalledLikeAnyOther) {
  NoPackage service;
  RecordedCall call;
  Call(&service, "Echo", &call);
  EXPECT_EQ(call.ErrorText(), "Method Echo() not implemented.");
}

}  // namespace
}  // namespace testdata
