// Bytes, of which the first tells where the second of two keys begins. Each is
// parsed as a browser's id, as a generated and as a dynamic message, and as
// what a stranger's class would make of it: unknown fields. All pairs of these
// are compared with what their serialisations say.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "google/protobuf/dynamic_message.h"
#include "google/protobuf/io/coded_stream.h"
#include "google/protobuf/io/zero_copy_stream_impl_lite.h"
#include "google/protobuf/message.h"
#include "google/protobuf/unknown_field_set.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_id.pb.h"
#include "zimbrel/src/core/common/rpc/message_content.h"

using google::protobuf::Message;

namespace {

using Keys = std::vector<std::unique_ptr<Message>>;

std::string Serialised(const Message& message) {
  std::string bytes;
  google::protobuf::io::StringOutputStream stream(&bytes);
  google::protobuf::io::CodedOutputStream out(&stream);
  out.SetSerializationDeterministic(true);
  message.SerializePartialToCodedStream(&out);
  out.Trim();
  return bytes;
}

void AddForms(const std::string& bytes, Keys& keys) {
  static google::protobuf::DynamicMessageFactory factory;
  const Message* const classes[] = {
      &BrowserId::default_instance(),
      factory.GetPrototype(BrowserId::descriptor())};
  for (const Message* some : classes) {
    std::unique_ptr<Message> parsed(some->New());
    if (parsed->ParseFromString(bytes)) keys.push_back(std::move(parsed));

    std::unique_ptr<Message> unknown(some->New());
    if (unknown->GetReflection()
            ->MutableUnknownFields(unknown.get())
            ->ParseFromString(bytes)) {
      keys.push_back(std::move(unknown));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  if (size == 0) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
  const std::size_t split = data[0] % size;
  Keys keys;
  AddForms(bytes.substr(0, split), keys);
  AddForms(bytes.substr(split), keys);

  for (const auto& left : keys) {
    for (const auto& right : keys) {
      const bool equal = Serialised(*left) == Serialised(*right);
      EXPECT_EQ(orvane::MessageEqual()(left.get(), right.get()), equal)
          << left->ShortDebugString() << " and " << right->ShortDebugString();
      if (equal) {
        EXPECT_EQ(orvane::MessageHash()(left.get()),
                  orvane::MessageHash()(right.get()))
            << left->ShortDebugString() << " and " << right->ShortDebugString();
      }
    }
  }
  return 0;
}
