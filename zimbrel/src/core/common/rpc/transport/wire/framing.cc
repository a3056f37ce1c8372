#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"

#include <cstdint>
#include <cstring>

#include "absl/strings/str_cat.h"
#include "google/protobuf/io/coded_stream.h"
#include "google/protobuf/wire_format_lite.h"

namespace orvane::internal {
namespace {

using google::protobuf::MessageLite;
using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;
using google::protobuf::io::CodedOutputStream;
using rpc::transport::StreamMessage;

constexpr std::uint32_t Varint(int field) {
  return WireFormatLite::MakeTag(field, WireFormatLite::WIRETYPE_VARINT);
}

constexpr std::uint32_t kPayloadTag =
    WireFormatLite::MakeTag(StreamMessage::kPayloadFieldNumber,
                            WireFormatLite::WIRETYPE_LENGTH_DELIMITED);

// Takes a varint from the front of `bytes`. False if there is none, or if it
// has more than 64 bits.
bool TakeVarint(std::string_view* bytes, std::uint64_t* value) {
  std::uint64_t result = 0;
  for (int shift = 0; shift < 64 && !bytes->empty(); shift += 7) {
    const auto byte = static_cast<unsigned char>(bytes->front());
    bytes->remove_prefix(1);
    result |= std::uint64_t{byte & 0x7fu} << shift;
    if (byte < 0x80) {
      *value = result;
      return true;
    }
  }
  return false;
}

// Parses a frame of numbers and possibly a payload behind them, without copying
// the payload. Nearly all frames are like that. False for every other frame,
// valid or not.
bool ParseUsualFrame(std::string_view frame, StreamMessage* header,
                     std::string_view* payload) {
  header->Clear();
  *payload = {};
  while (!frame.empty()) {
    std::uint64_t tag = 0;
    std::uint64_t value = 0;
    if (!TakeVarint(&frame, &tag) || !TakeVarint(&frame, &value)) return false;
    switch (tag) {
      case Varint(StreamMessage::kKindFieldNumber):
        header->set_kind(static_cast<StreamMessage::Kind>(value));
        break;
      case Varint(StreamMessage::kStreamIdFieldNumber):
        header->set_stream_id(value);
        break;
      case Varint(StreamMessage::kMethodFieldNumber):
        header->set_method(static_cast<std::uint32_t>(value));
        break;
      case Varint(StreamMessage::kCallIdFieldNumber):
        header->set_call_id(static_cast<std::int64_t>(value));
        break;
      case kPayloadTag:
        *payload = frame;
        return frame.size() == value;
      default:
        return false;
    }
  }
  return true;
}

absl::Status TooLong(std::size_t length, std::size_t limit) {
  return absl::ResourceExhaustedError(
      absl::StrCat("frame of ", length, " bytes; the limit is ", limit));
}

// Serialised messages one behind the other are one message, so the payload need
// not be copied into the header first. `write_payload` writes it to the address
// that it is given.
template <typename WritePayload>
absl::Status Append(const StreamMessage& header, std::size_t payload_bytes,
                    std::size_t max_frame_bytes, ByteBuffer* out,
                    WritePayload write_payload) {
  std::size_t length = header.ByteSizeLong();
  if (payload_bytes > 0) {
    length += CodedOutputStream::VarintSize32(kPayloadTag) +
              CodedOutputStream::VarintSize64(payload_bytes) + payload_bytes;
  }
  if (length > max_frame_bytes) return TooLong(length, max_frame_bytes);

  char* const begin = out->Reserve(kFrameLengthBytes + length);
  auto* to = reinterpret_cast<std::uint8_t*>(begin);
  to = CodedOutputStream::WriteLittleEndian32ToArray(
      static_cast<std::uint32_t>(length), to);
  to = header.SerializeWithCachedSizesToArray(to);
  if (payload_bytes > 0) {
    to = CodedOutputStream::WriteTagToArray(kPayloadTag, to);
    to = CodedOutputStream::WriteVarint64ToArray(payload_bytes, to);
    write_payload(to);
  }
  out->Commit(kFrameLengthBytes + length);
  return absl::OkStatus();
}

}  // namespace

char* FrameReader::Space() {
  received_.Consume(handed_out_);
  handed_out_ = 0;
  // There must be room for at least one byte; how much there is depends on how
  // the buffer grows.
  return received_.Reserve(1);
}

absl::Status FrameReader::TooLong(std::size_t length) const {
  return internal::TooLong(length, max_frame_bytes_);
}

absl::Status AppendFrame(const StreamMessage& header,
                         const MessageLite& payload,
                         std::size_t max_frame_bytes, ByteBuffer* out) {
  return Append(
      header, payload.ByteSizeLong(), max_frame_bytes, out,
      [&payload](std::uint8_t* to) {
        static_cast<void>(payload.SerializeWithCachedSizesToArray(to));
      });
}

absl::Status AppendFrame(const StreamMessage& header, std::string_view payload,
                         std::size_t max_frame_bytes, ByteBuffer* out) {
  return Append(header, payload.size(), max_frame_bytes, out,
                [payload](std::uint8_t* to) {
                  std::memcpy(to, payload.data(), payload.size());
                });
}

bool ParseFrame(std::string_view frame, StreamMessage* header,
                std::string_view* payload) {
  if (ParseUsualFrame(frame, header, payload)) return true;
  if (!header->ParseFromArray(frame.data(), static_cast<int>(frame.size())))
    return false;
  *payload = header->payload();
  return true;
}

bool ParsePayload(std::string_view payload, int max_depth,
                  MessageLite* message) {
  // With its default limit protobuf parses faster.
  if (max_depth >= kMaxMessageDepth)
    return message->ParseFromArray(payload.data(),
                                   static_cast<int>(payload.size()));
  CodedInputStream input(reinterpret_cast<const std::uint8_t*>(payload.data()),
                         static_cast<int>(payload.size()));
  input.SetRecursionLimit(max_depth);
  return message->ParseFromCodedStream(&input) && input.ConsumedEntireMessage();
}

}  // namespace orvane::internal
