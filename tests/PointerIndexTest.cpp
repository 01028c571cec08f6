#include "CoreClasses/PointerIndex.h"

#include <random>
#include <unordered_map>

#include "OrvaneTest.h"

namespace Orvane {
namespace {

class PointerIndexTest : public OrvaneTest {};

TEST_F(PointerIndexTest, EmptyIndexFindsNothing) {
  PointerIndex index;
  EXPECT_EQ(PointerIndex::kNone, index.Find(nullptr));
  index.Reserve(10);
  EXPECT_EQ(PointerIndex::kNone, index.Find(nullptr));
}

TEST_F(PointerIndexTest, BehavesAsAPlainMapDoes) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::vector<char> storage(300);
  PointerIndex index;
  std::unordered_map<const void*, std::size_t> model;
  for (std::size_t step = 0; step < 100000; ++step) {
    const std::size_t number = random() % storage.size();
    const void* const key = number == 0 ? nullptr : &storage[number];
    const auto found = model.find(key);
    if (found != model.end()) {
      ASSERT_EQ(found->second, index.Find(key));
      index.Erase(key);
      model.erase(found);
    } else {
      ASSERT_EQ(PointerIndex::kNone, index.Find(key));
      index.Reserve(model.size() + 1);
      index.Insert(key, step);
      model.emplace(key, step);
    }
  }
}

TEST_F(PointerIndexTest, ReserveThatFindsNoMemoryChangesNothing) {
  char storage[200];
  PointerIndex index;
  index.Reserve(1);
  index.Insert(&storage[0], 7);
  const AllocationFailure failure(1);
  EXPECT_THROW(index.Reserve(1000), std::bad_alloc);
  EXPECT_EQ(7u, index.Find(&storage[0]));
}

}  // namespace
}  // namespace Orvane
