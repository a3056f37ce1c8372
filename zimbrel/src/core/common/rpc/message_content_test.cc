#include "zimbrel/src/core/common/rpc/message_content.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <unordered_map>

#include "google/protobuf/descriptor.h"
#include "google/protobuf/dynamic_message.h"
#include "google/protobuf/unknown_field_set.h"
#include "gtest/gtest.h"

#include "keys.pb.h"
#include "proto2_keys.pb.h"
#include "rpc/browser/browser_id.pb.h"

namespace orvane {
namespace {

using google::protobuf::Message;
using testdata::Everything;
using testdata::Small;
using testdata::Strict;
using testdata::Twin;

// Equal in both directions, and so of equal hash.
bool Same(const Message& left, const Message& right) {
  const bool equal = MessageEqual()(&left, &right);
  EXPECT_EQ(equal, MessageEqual()(&right, &left))
      << "equality is not symmetric";
  if (equal) {
    EXPECT_EQ(MessageHash()(&left), MessageHash()(&right))
        << "equal, of different hash";
  }
  return equal;
}

bool SameAsItsCopy(const Message& message) {
  const std::unique_ptr<Message> copy(message.New(nullptr));
  copy->CopyFrom(message);
  return Same(message, *copy);
}

Small MakeSmall(std::int64_t value) {
  Small small;
  small.set_value(value);
  return small;
}

TEST(MessageContent, DistinctObjectsOfEqualContentAreEqual) {
  EXPECT_TRUE(Same(MakeSmall(7), MakeSmall(7)));
}

TEST(MessageContent, DifferentValuesDiffer) {
  EXPECT_FALSE(Same(MakeSmall(7), MakeSmall(8)));
  EXPECT_FALSE(Same(MakeSmall(7), MakeSmall(-7)));
  EXPECT_NE(MessageHash()(std::make_unique<Small>(MakeSmall(7)).get()),
            MessageHash()(std::make_unique<Small>(MakeSmall(8)).get()));
}

TEST(MessageContent, EmptyMessagesOfOneTypeAreEqual) {
  EXPECT_TRUE(Same(Small(), Small()));
}

TEST(MessageContent, TypesOfTheSameBytesDiffer) {
  Twin twin;
  twin.set_value(7);
  EXPECT_FALSE(Same(MakeSmall(7), twin));
  EXPECT_FALSE(Same(Small(), Twin()));
}

TEST(MessageContent, ACopyOfNaNIsEqual) {
  Everything message;
  message.set_number(std::numeric_limits<double>::quiet_NaN());
  EXPECT_TRUE(SameAsItsCopy(message));
}

TEST(MessageContent, NegativeZeroIsEqualToItsCopyAndDiffersFromZero) {
  Everything message;
  message.set_number(-0.0);
  EXPECT_TRUE(SameAsItsCopy(message));
  Everything zero;
  zero.set_number(0.0);
  EXPECT_FALSE(Same(message, zero));
}

TEST(MessageContent, PresenceCounts) {
  Everything absent;
  Everything present;
  present.set_optional_number(0);
  EXPECT_FALSE(Same(absent, present));
  EXPECT_TRUE(SameAsItsCopy(present));
}

TEST(MessageContent, TheMemberOfAOneofCounts) {
  Everything left;
  left.mutable_left()->set_value(1);
  Everything right;
  right.mutable_right()->set_value(1);
  EXPECT_FALSE(Same(left, right));
}

TEST(MessageContent, UnknownFieldsAreCopiedAndCompared) {
  Small plain = MakeSmall(7);
  Small extended = MakeSmall(7);
  extended.GetReflection()->MutableUnknownFields(&extended)->AddVarint(99, 5);
  EXPECT_TRUE(SameAsItsCopy(extended));
  EXPECT_FALSE(Same(plain, extended));
}

TEST(MessageContent, TheOrderInWhichAMapWasFilledDoesNotCount) {
  Everything up;
  Everything down;
  for (int i = 0; i < 200; ++i) {
    (*up.mutable_by_name())["key" + std::to_string(i)] = i;
    (*down.mutable_by_name())["key" + std::to_string(199 - i)] = 199 - i;
  }
  EXPECT_TRUE(Same(up, down));
  EXPECT_TRUE(SameAsItsCopy(up));
}

TEST(MessageContent, MapsInsideMapsAreComparedTheSameWay) {
  Everything up;
  Everything down;
  for (int i = 0; i < 50; ++i) {
    (*(*up.mutable_by_number())[3]
          .mutable_by_name())["key" + std::to_string(i)] = i;
    (*(*down.mutable_by_number())[3]
          .mutable_by_name())["key" + std::to_string(49 - i)] = 49 - i;
  }
  EXPECT_TRUE(Same(up, down));
}

TEST(MessageContent, MapsFilledThroughReflectionEqualTheirCopies) {
  Everything message;
  const auto* field = message.GetDescriptor()->FindFieldByName("by_name");
  const auto* reflection = message.GetReflection();
  for (int i = 20; i > 0; --i) {
    Message* entry = reflection->AddMessage(&message, field);
    entry->GetReflection()->SetString(entry, field->message_type()->map_key(),
                                      "key" + std::to_string(i));
  }
  EXPECT_TRUE(SameAsItsCopy(message));
}

TEST(MessageContent, LargeMessagesAreComparedToTheLastByte) {
  Everything left;
  left.set_text(std::string(100000, 'x'));
  Everything right = left;
  EXPECT_TRUE(Same(left, right));
  right.mutable_text()->back() = 'y';
  EXPECT_FALSE(Same(left, right));
}

TEST(MessageContent, MissingRequiredFieldsAreNoObstacle) {
  EXPECT_TRUE(SameAsItsCopy(Strict()));
  Strict set;
  set.set_must(0);
  EXPECT_FALSE(Same(Strict(), set));
}

TEST(MessageContent, ExtensionsCount) {
  Strict strict;
  strict.AddExtension(testdata::extra, 4);
  EXPECT_TRUE(SameAsItsCopy(strict));
  EXPECT_FALSE(Same(strict, Strict()));
}

TEST(MessageContent, DynamicMessagesEqualGeneratedOnesOfTheSameDescriptor) {
  google::protobuf::DynamicMessageFactory factory;
  const std::unique_ptr<Message> dynamic(
      factory.GetPrototype(Small::descriptor())->New());
  dynamic->GetReflection()->SetInt64(
      dynamic.get(), Small::descriptor()->FindFieldByName("value"), 7);
  EXPECT_TRUE(Same(*dynamic, MakeSmall(7)));
  EXPECT_TRUE(SameAsItsCopy(*dynamic));
}

BrowserId MakeId(std::uint64_t value) {
  BrowserId id;
  id.set_value(value);
  return id;
}

// The id whose one field protobuf does not recognise: it is serialised to the
// same bytes.
BrowserId MakeIdAsUnknownField(std::uint64_t value) {
  BrowserId id;
  id.GetReflection()->MutableUnknownFields(&id)->AddVarint(
      BrowserId::kValueFieldNumber, value);
  return id;
}

std::unique_ptr<Message> MakeDynamicId(
    google::protobuf::DynamicMessageFactory& factory, std::uint64_t value) {
  std::unique_ptr<Message> id(
      factory.GetPrototype(BrowserId::descriptor())->New());
  id->GetReflection()->SetUInt64(
      id.get(), BrowserId::descriptor()->FindFieldByName("value"), value);
  return id;
}

TEST(MessageContent, ABrowserIdOfAnySizeEqualsAllItsForms) {
  google::protobuf::DynamicMessageFactory factory;
  for (int bits = 0; bits < 64; ++bits) {
    for (const std::uint64_t value :
         {std::uint64_t{1} << bits, (std::uint64_t{1} << bits) - 1,
          ~std::uint64_t{0} << bits}) {
      SCOPED_TRACE(value);
      const BrowserId id = MakeId(value);
      EXPECT_TRUE(SameAsItsCopy(id));
      EXPECT_TRUE(Same(id, *MakeDynamicId(factory, value)));
      EXPECT_FALSE(Same(id, MakeId(value ^ 1)));
      EXPECT_FALSE(Same(id, *MakeDynamicId(factory, value ^ 1)));
      // Zero is not serialised, except as an unknown field.
      EXPECT_EQ(Same(id, MakeIdAsUnknownField(value)), value != 0);
    }
  }
}

TEST(MessageContent, AnUnknownFieldOfABrowserIdCounts) {
  BrowserId extended = MakeId(7);
  extended.GetReflection()->MutableUnknownFields(&extended)->AddVarint(2, 5);
  EXPECT_TRUE(SameAsItsCopy(extended));
  EXPECT_FALSE(Same(MakeId(7), extended));
}

// Its hash and comparison read this field and no other.
TEST(MessageContent, ABrowserIdIsOneNumberWithoutPresence) {
  const google::protobuf::Descriptor& id = *BrowserId::descriptor();
  ASSERT_EQ(id.field_count(), 1);
  EXPECT_EQ(id.extension_range_count(), 0);
  EXPECT_EQ(id.field(0)->type(),
            google::protobuf::FieldDescriptor::TYPE_UINT64);
  EXPECT_FALSE(id.field(0)->has_presence());
  EXPECT_FALSE(id.field(0)->is_repeated());
}

TEST(MessageContent, ACopyFindsTheEntryOfItsSourceAndTheSourceThatOfItsCopy) {
  std::unordered_map<const Message*, int, MessageHash, MessageEqual> map;
  const Small source = MakeSmall(7);
  const std::unique_ptr<Message> copy(source.New(nullptr));
  copy->CopyFrom(source);
  map[copy.get()] = 1;
  EXPECT_EQ(map.count(&source), 1u);
  map.clear();
  map[&source] = 1;
  EXPECT_EQ(map.count(copy.get()), 1u);
}

}  // namespace
}  // namespace orvane
