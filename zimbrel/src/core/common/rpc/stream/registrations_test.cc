#include "zimbrel/src/core/common/rpc/stream/registrations.h"

#include "gtest/gtest.h"

#include "rpc/browser/browser_id.pb.h"
#include "zimbrel/src/core/common/rpc/abstract_stream.h"

namespace orvane::internal {
namespace {

class RegistrationsTest : public ::testing::Test {
 protected:
  // They compare addresses and look at nothing else, so any will do.
  const AbstractStream* const stream_ =
      reinterpret_cast<const AbstractStream*>(&some_memory_[0]);
  const AbstractStream* const other_stream_ =
      reinterpret_cast<const AbstractStream*>(&some_memory_[1]);
  const BrowserId key_;
  const BrowserId equal_key_;
  Registrations registrations_;

 private:
  const void* some_memory_[2] = {};
};

TEST_F(RegistrationsTest, HoldWhatWasAddedAndNothingElse) {
  EXPECT_FALSE(registrations_.Has(stream_, &key_));
  registrations_.Add(stream_, &key_);
  EXPECT_TRUE(registrations_.Has(stream_, &key_));
  EXPECT_FALSE(registrations_.Has(other_stream_, &key_));
  EXPECT_FALSE(registrations_.Has(stream_, &equal_key_));
}

TEST_F(RegistrationsTest, OneRemovalUndoesAnyNumberOfAdditions) {
  registrations_.Add(stream_, &key_);
  registrations_.Add(stream_, &key_);
  registrations_.Remove(stream_, &key_);
  EXPECT_FALSE(registrations_.Has(stream_, &key_));
}

TEST_F(RegistrationsTest, RemovalLeavesOtherEntriesAndStreams) {
  registrations_.Add(stream_, &key_);
  registrations_.Add(stream_, &equal_key_);
  registrations_.Add(other_stream_, &key_);
  registrations_.Remove(stream_, &key_);
  EXPECT_TRUE(registrations_.Has(stream_, &equal_key_));
  EXPECT_TRUE(registrations_.Has(other_stream_, &key_));
}

TEST_F(RegistrationsTest, RemovingWhatIsNotThereIsHarmless) {
  registrations_.Remove(stream_, &key_);
  registrations_.Add(stream_, &key_);
  registrations_.Remove(stream_, &equal_key_);
  EXPECT_TRUE(registrations_.Has(stream_, &key_));
}

TEST_F(RegistrationsTest, AForgottenStreamHasLeftEveryEntry) {
  registrations_.Add(stream_, &key_);
  registrations_.Add(stream_, &equal_key_);
  registrations_.Add(other_stream_, &key_);
  registrations_.Forget(stream_);
  EXPECT_FALSE(registrations_.Has(stream_, &key_));
  EXPECT_FALSE(registrations_.Has(stream_, &equal_key_));
  EXPECT_TRUE(registrations_.Has(other_stream_, &key_));
}

TEST_F(RegistrationsTest, ForgettingAStrangerIsHarmless) {
  registrations_.Forget(stream_);
  EXPECT_FALSE(registrations_.Has(stream_, &key_));
}

TEST_F(RegistrationsTest, ThereIsOneForTheProcess) {
  EXPECT_EQ(&Registrations::Get(), &Registrations::Get());
}

}  // namespace
}  // namespace orvane::internal
