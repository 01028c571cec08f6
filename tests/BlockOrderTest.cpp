#include "Cache/BlockOrder.h"

#include <algorithm>
#include <random>
#include <tuple>

#include "BlockFixture.h"

namespace Orvane {
namespace {

class BlockOrderTest : public OrvaneTest {
 protected:
  // Blocks over one small buffer; none of them belongs to a list.
  void MakeBlocks(std::size_t count) {
    for (std::size_t k = 0; k < count; ++k) {
      blocks_.push_back(std::make_unique<CacheBlock>(group_.get(), buffer_));
    }
    order_.Reserve(count);
  }
  // Used at that time, in microseconds.
  void Use(std::size_t k, std::uint64_t time) { order_.Put(Block(k), time / 1000, time); }
  void Empty(std::size_t k) { order_.Put(Block(k), 0, 0); }
  CacheBlock* Block(std::size_t k) { return blocks_[k].get(); }
  // Takes all out, in order.
  std::vector<std::size_t> TakeAll() {
    std::vector<std::size_t> all;
    while (CacheBlock* const first = order_.GetFirst()) {
      order_.TakeOut(first);
      const auto is = [=](const auto& block) { return block.get() == first; };
      all.push_back(static_cast<std::size_t>(std::ranges::find_if(blocks_, is) - blocks_.begin()));
    }
    return all;
  }
  void TearDown() override {
    blocks_.clear();
    group_.reset();
    buffer_.Release();
    OrvaneTest::TearDown();
  }

  AutoRelease<HeapBuffer> buffer_{new HeapBuffer(16)};
  std::unique_ptr<BlockGroup> group_{new BlockGroup(nullptr, nullptr)};
  std::vector<std::unique_ptr<CacheBlock>> blocks_;
  BlockOrder order_;
};

using Order = std::vector<std::size_t>;

TEST_F(BlockOrderTest, NobodyIsFirstOfNone) {
  EXPECT_EQ(nullptr, order_.GetFirst());
  MakeBlocks(1);
  order_.TakeOut(Block(0));
  EXPECT_EQ(nullptr, order_.GetFirst());
  Use(0, 5000);
  order_.TakeOut(Block(0));
  order_.TakeOut(Block(0));
  EXPECT_EQ(nullptr, order_.GetFirst());
}

TEST_F(BlockOrderTest, EmptyBlocksComeFirstInTheOrderOfTheirComing) {
  MakeBlocks(4);
  Use(2, 100);
  Empty(1);
  Empty(3);
  Empty(0);
  EXPECT_EQ((Order{1, 3, 0, 2}), TakeAll());
}

TEST_F(BlockOrderTest, BlocksComeInTheOrderOfTheirUse) {
  MakeBlocks(5);
  for (const std::size_t k : {3u, 1u, 4u, 0u, 2u}) Use(k, 7000 + k * 300);
  EXPECT_EQ((Order{0, 1, 2, 3, 4}), TakeAll());
}

TEST_F(BlockOrderTest, BlocksWantedLaterAndEarlierStandAmongTheUsedOnes) {
  MakeBlocks(5);
  Use(0, 10000000);
  Use(1, 20000000);
  order_.Put(Block(2), 15000, 20000001);  // due 15 s
  order_.Put(Block(3), 90000, 20000002);  // due 90 s
  Use(4, 30000000);
  EXPECT_EQ((Order{0, 2, 1, 4, 3}), TakeAll());
}

TEST_F(BlockOrderTest, OfEqualStampsTheOneThatWasSetFirstIsFirst) {
  MakeBlocks(4);
  for (const std::size_t k : {2u, 0u, 3u, 1u}) order_.Put(Block(k), 9000, 100 + k);
  EXPECT_EQ((Order{0, 1, 2, 3}), TakeAll());
}

TEST_F(BlockOrderTest, OfThoseThatAgreeInAllTheFirstToComeIsFirst) {
  MakeBlocks(6);
  // In the queue, and where a later use has come before.
  for (const std::size_t k : {4u, 2u}) Use(k, 5000);
  Use(5, 6000);
  for (const std::size_t k : {3u, 0u, 1u}) Use(k, 5000);
  EXPECT_EQ((Order{4, 2, 3, 0, 1, 5}), TakeAll());
}

TEST_F(BlockOrderTest, ABlockThatIsPutAgainLeavesItsPlace) {
  MakeBlocks(3);
  for (std::size_t k = 0; k < 3; ++k) Use(k, 1000 * (k + 1));
  Use(0, 9000);
  order_.Put(Block(1), 20, 9001);
  EXPECT_EQ((Order{2, 0, 1}), TakeAll());
  for (std::size_t k = 0; k < 3; ++k) order_.Put(Block(k), 100 + k, 50);
  order_.Put(Block(1), 200, 50);
  Empty(2);
  EXPECT_EQ((Order{2, 0, 1}), TakeAll());
}

TEST_F(BlockOrderTest, AllocatesOnlyInReserve) {
  MakeBlocks(64);
  const std::size_t before = AllocationCounter::Count();
  for (std::size_t k = 0; k < 64; ++k) order_.Put(Block(k), 1000 - k, 5);
  EXPECT_EQ(before, AllocationCounter::Count());
  EXPECT_EQ(Block(63), order_.GetFirst());
}

// What it should be: sorted by stamp, by the time at which it was set, and by turn.
TEST_F(BlockOrderTest, AgreesWithASortedListWhateverIsDone) {
  constexpr unsigned kSeed = 20261122;
  constexpr std::size_t kBlocks = 100;
  using Rank = std::tuple<std::uint64_t, std::uint64_t, int, std::size_t>;
  MakeBlocks(kBlocks);
  std::mt19937 random(kSeed);
  std::vector<Rank> model;
  std::uint64_t time = 1000000;
  for (int turn = 0; turn < 20000; ++turn) {
    const std::size_t k = random() % kBlocks;
    std::erase_if(model, [=](const Rank& rank) { return std::get<3>(rank) == k; });
    const unsigned kind = random() % 8;
    time += random() % 3 * 400;
    const std::uint64_t ago = time - random() % 4 * 1000;
    if (kind == 0) {
      order_.TakeOut(Block(k));
    } else if (kind == 1) {
      Empty(k);
      model.push_back({0, 0, turn, k});
    } else {
      const std::uint64_t stamp = kind == 2 ? ago / 1000 + random() % 5 : ago / 1000;
      const std::uint64_t setAt = kind == 3 ? time : ago;
      order_.Put(Block(k), stamp, setAt);
      model.push_back({stamp, setAt, turn, k});
    }
    const auto first = std::ranges::min_element(model);
    ASSERT_EQ(first == model.end() ? nullptr : Block(std::get<3>(*first)), order_.GetFirst())
        << "seed " << kSeed << ", turn " << turn;
  }
}

}  // namespace
}  // namespace Orvane
