#include "CoreClasses/ObjectSequence.h"

#include <algorithm>
#include <deque>
#include <random>
#include <stdexcept>

#include "OrvaneTest.h"
#include "SharedObject.h"

namespace Orvane {
namespace {

// Only pointers are kept, so any distinct addresses do.
class ObjectSequenceTest : public OrvaneTest {
 protected:
  SharedObject* Object(std::size_t number) {
    return static_cast<SharedObject*>(static_cast<void*>(&storage_[16 * number]));
  }

  alignas(16) char storage_[16 * 1000];
};

void ExpectSame(ObjectSequence* sequence, const std::deque<SharedObject*>& model) {
  ASSERT_EQ(model.size(), sequence->Count());
  for (std::size_t i = 0; i < model.size(); ++i) {
    ASSERT_EQ(model[i], sequence->At(i));
    ASSERT_EQ(i, sequence->Find(model[i]));
  }
}

// The look at all positions costs much and changes how the next steps are done, so it is rare.
TEST_F(ObjectSequenceTest, BehavesAsAPlainListDoes) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  ObjectSequence sequence;
  std::deque<SharedObject*> model;
  std::size_t objects = 12;
  for (int step = 0; step < 60000; ++step) {
    if (step % 10000 == 9999) objects = random() % 2 ? 12 : 1000;
    SharedObject* const object = Object(random() % objects);
    const auto found = std::find(model.begin(), model.end(), object);
    const bool isMember = found != model.end();
    switch (random() % 4) {
      case 0:
        ASSERT_EQ(!isMember, sequence.PushBack(object));
        if (!isMember) model.push_back(object);
        break;
      case 1:
        ASSERT_EQ(!isMember, sequence.PushFront(object));
        if (!isMember) model.push_front(object);
        break;
      default:
        ASSERT_EQ(isMember, sequence.Erase(object));
        if (isMember) model.erase(found);
    }
    if (random() % 64 == 0) ExpectSame(&sequence, model);
    if (HasFatalFailure()) return;
  }
}

TEST_F(ObjectSequenceTest, FullContainerIsALengthError) {
  ObjectSequence sequence(2);
  sequence.PushBack(Object(0));
  sequence.PushBack(Object(1));
  for (const auto push : {&ObjectSequence::PushBack, &ObjectSequence::PushFront}) {
    try {
      (sequence.*push)(Object(2));
      ADD_FAILURE() << "no exception";
    } catch (const std::length_error& error) {
      EXPECT_STREQ("list too long", error.what());
    }
  }
  EXPECT_EQ(2u, sequence.Count());
  EXPECT_FALSE(sequence.PushBack(Object(1)));
}

TEST_F(ObjectSequenceTest, ReservedRoomIsEnoughForAnyMixOfAddingAndRemoving) {
  ObjectSequence sequence;
  sequence.Reserve(100);
  const std::size_t before = AllocationCounter::Count();
  for (std::size_t i = 0; i < 100; ++i) sequence.PushFront(Object(i));
  for (std::size_t i = 0; i < 10000; ++i) {
    sequence.Erase(Object(i * 37 % 100));
    sequence.PushFront(Object(i * 37 % 100));
  }
  EXPECT_EQ(before, AllocationCounter::Count());
}

TEST_F(ObjectSequenceTest, PositionsAreFoundWithoutMemoryToo) {
  ObjectSequence sequence;
  for (std::size_t i = 0; i < 100; ++i) sequence.PushBack(Object(i));
  for (std::size_t i = 1; i < 99; i += 2) sequence.Erase(Object(i));
  {
    const AllocationFailure failure(1);
    EXPECT_EQ(Object(40), sequence.At(20));
    EXPECT_TRUE(failure.HasHappened());
  }
  const AllocationFailure failure(1);
  EXPECT_EQ(20u, sequence.Find(Object(40)));
}

}  // namespace
}  // namespace Orvane
