#include "zimbrel/src/core/common/rpc/message_content.h"

#include <array>
#include <cstdint>
#include <memory>
#include <typeinfo>

#include "absl/hash/hash.h"
#include "absl/strings/string_view.h"
#include "google/protobuf/descriptor.pb.h"
#include "google/protobuf/dynamic_message.h"
#include "google/protobuf/io/coded_stream.h"

#include "rpc/browser/browser_id.pb.h"

namespace orvane {
namespace {

using google::protobuf::Message;

// The deterministic serialisation of one message, on the stack if it is small.
class Content {
 public:
  // `size` is what the message's ByteSizeLong() has just returned.
  Content(const Message& message, std::size_t size) : size_(size) {
    std::uint8_t* bytes = small_.data();
    if (size > small_.size()) {
      large_ = std::make_unique_for_overwrite<std::uint8_t[]>(size);
      bytes = large_.get();
    }
    bytes_ = bytes;
    // What protobuf's own serialisation to an array does, made deterministic; a
    // CodedOutputStream would double the cost of a look-up.
    google::protobuf::io::EpsCopyOutputStream out(bytes, static_cast<int>(size),
                                                  /*deterministic=*/true);
    message._InternalSerialize(bytes, &out);
  }

  explicit Content(const Message& message)
      : Content(message, message.ByteSizeLong()) {}

  // Not std::string_view, which older Abseils hash through the standard
  // library.
  absl::string_view bytes() const {
    return {reinterpret_cast<const char*>(bytes_), size_};
  }

 private:
  std::array<std::uint8_t, 256> small_;
  std::unique_ptr<std::uint8_t[]> large_;
  const std::uint8_t* bytes_;
  std::size_t size_;
};

// The class of all messages whose types only their descriptors know.
const std::type_info& DynamicClass() {
  google::protobuf::DynamicMessageFactory factory;
  const Message& some = *factory.GetPrototype(
      google::protobuf::FileDescriptorProto::descriptor());
  return typeid(some);
}

// A generated class stands for one type, and comparing classes is much faster
// than having protobuf find descriptors.
bool AreOfOneType(const Message& left, const Message& right) {
  static const std::type_info* const dynamic_class = &DynamicClass();
  const std::type_info* const left_class = &typeid(left);
  return (left_class == &typeid(right) && left_class != dynamic_class) ||
         left.GetDescriptor() == right.GetDescriptor();
}

std::size_t SerialisedSize(std::uint64_t browser_id) {
  using google::protobuf::io::CodedOutputStream;
  return browser_id == 0 ? 0 : 1 + CodedOutputStream::VarintSize64(browser_id);
}

// What nearly every key is: a browser's id with nothing besides. Serialising
// its one number takes longer than the rest of a look-up.
const BrowserId* PlainBrowserId(const Message& message) {
  if (&typeid(message) != &typeid(BrowserId)) return nullptr;
  const auto& id = static_cast<const BrowserId&>(message);
  // Any unknown field makes it longer.
  return id.ByteSizeLong() == SerialisedSize(id.value()) ? &id : nullptr;
}

// The hash of the bytes that such an id is serialised to: the same id may also
// come as a dynamic message, or as an unknown field.
std::size_t HashOfBrowserId(std::uint64_t value) {
  std::array<std::uint8_t, 11> bytes;
  bytes[0] = BrowserId::kValueFieldNumber << 3;  // The tag of a varint.
  google::protobuf::io::CodedOutputStream::WriteVarint64ToArray(value,
                                                                &bytes[1]);
  return absl::HashOf(absl::string_view(
      reinterpret_cast<const char*>(bytes.data()), SerialisedSize(value)));
}

}  // namespace

std::size_t MessageHash::operator()(const Message* message) const {
  if (const BrowserId* id = PlainBrowserId(*message)) {
    return HashOfBrowserId(id->value());
  }
  const Content content(*message);
  // Without the type: keys that meet in one table are nearly always of one.
  return absl::HashOf(content.bytes());
}

bool MessageEqual::operator()(const Message* left, const Message* right) const {
  if (left == right) return true;
  const BrowserId* const left_id = PlainBrowserId(*left);
  const BrowserId* const right_id = PlainBrowserId(*right);
  if (left_id && right_id) return left_id->value() == right_id->value();
  if (!AreOfOneType(*left, *right)) return false;
  const std::size_t size = left->ByteSizeLong();
  if (right->ByteSizeLong() != size) return false;
  return Content(*left, size).bytes() == Content(*right, size).bytes();
}

}  // namespace orvane
