#include "Cache/BlockIndex.h"

#include <atomic>
#include <limits>
#include <thread>

#include "BlockFixture.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kStep = 4096;

class BlockIndexTest : public OrvaneTest {
 protected:
  // Blocks over one small buffer; none of them belongs to a list.
  void MakeBlocks(std::size_t count) {
    blocks_.clear();
    for (std::size_t k = 0; k < count; ++k) {
      blocks_.push_back(std::make_unique<CacheBlock>(group_.get(), buffer_));
    }
  }
  CacheBlock* Block(std::size_t k) { return blocks_[k].get(); }
  void TearDown() override {
    index_ = BlockIndex();
    blocks_.clear();
    group_.reset();
    buffer_.Release();
    OrvaneTest::TearDown();
  }

  AutoRelease<HeapBuffer> buffer_{new HeapBuffer(16)};
  std::unique_ptr<BlockGroup> group_{new BlockGroup(nullptr, nullptr)};
  std::vector<std::unique_ptr<CacheBlock>> blocks_;
  BlockIndex index_;
};

TEST_F(BlockIndexTest, NothingIsFoundInAnEmptyIndex) {
  EXPECT_EQ(nullptr, index_.Find(1, 0));
  index_.Reserve(0, kStep);
  EXPECT_EQ(nullptr, index_.Find(1, 0));
  index_.Reserve(8, kStep);
  EXPECT_EQ(nullptr, index_.Find(1, 0));
}

TEST_F(BlockIndexTest, FindsWhatWasInsertedUntilItIsRemoved) {
  MakeBlocks(1);
  index_.Reserve(1, kStep);
  index_.Insert(Block(0), 7, 3 * kStep);
  EXPECT_EQ(Block(0), index_.Find(7, 3 * kStep));
  index_.Remove(Block(0));
  EXPECT_EQ(nullptr, index_.Find(7, 3 * kStep));
  index_.Insert(Block(0), 8, 0);
  EXPECT_EQ(Block(0), index_.Find(8, 0));
  EXPECT_EQ(nullptr, index_.Find(7, 3 * kStep));
  index_.Remove(Block(0));
}

// With few buckets, so that those that come and go are in the chains that are looked through.
TEST_F(BlockIndexTest, WhatStaysIsFoundWhileOthersComeAndGo) {
  constexpr std::size_t kBlocks = 64;
  MakeBlocks(kBlocks);
  index_.Reserve(1, kStep);
  for (std::size_t k = 0; k < kBlocks; k += 2) index_.Insert(Block(k), 1, k * kStep);
  std::atomic<bool> isOver{false};
  std::atomic<std::size_t> missed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      while (!isOver) {
        for (std::size_t k = 0; k < kBlocks; k += 2) {
          if (index_.Find(1, k * kStep) != Block(k)) ++missed;
        }
      }
    });
  }
  for (std::uint64_t round = 1; round <= 3000; ++round) {
    for (std::size_t k = 1; k < kBlocks; k += 2)
      index_.Insert(Block(k), 1, (round * kBlocks + k) * kStep);
    for (std::size_t k = 1; k < kBlocks; k += 2) index_.Remove(Block(k));
  }
  isOver = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0u, missed);
  for (std::size_t k = 0; k < kBlocks; k += 2) index_.Remove(Block(k));
}

TEST_F(BlockIndexTest, KeyAndOffsetMustBothAgree) {
  MakeBlocks(4);
  index_.Reserve(4, kStep);
  index_.Insert(Block(0), 1, 0);
  index_.Insert(Block(1), 2, 0);
  index_.Insert(Block(2), 1, kStep);
  EXPECT_EQ(Block(0), index_.Find(1, 0));
  EXPECT_EQ(Block(1), index_.Find(2, 0));
  EXPECT_EQ(Block(2), index_.Find(1, kStep));
  EXPECT_EQ(nullptr, index_.Find(2, kStep));
  EXPECT_EQ(nullptr, index_.Find(1, 1));
  EXPECT_EQ(nullptr, index_.Find(3, 0));
}

TEST_F(BlockIndexTest, RemovingABlockThatIsNotInTheIndexDoesNothing) {
  MakeBlocks(2);
  index_.Reserve(2, kStep);
  index_.Insert(Block(0), 1, 0);
  index_.Remove(Block(1));
  index_.Remove(Block(0));
  index_.Remove(Block(0));
  EXPECT_EQ(nullptr, index_.Find(1, 0));
}

// Far more blocks than buckets: all share a few chains.
TEST_F(BlockIndexTest, BlocksOfOneChainComeAndGoAlone) {
  constexpr std::size_t kCount = 32;
  MakeBlocks(kCount);
  index_.Reserve(1, kStep);
  for (std::size_t k = 0; k < kCount; ++k) index_.Insert(Block(k), 5, k * kStep);
  // From the middle, the front and the back of the chains.
  for (std::size_t k = 0; k < kCount; k += 3) index_.Remove(Block(k));
  for (std::size_t k = 0; k < kCount; ++k) {
    EXPECT_EQ(k % 3 == 0 ? nullptr : Block(k), index_.Find(5, k * kStep)) << k;
  }
  for (std::size_t k = 0; k < kCount; k += 3) index_.Insert(Block(k), 6, k * kStep);
  for (std::size_t k = 0; k < kCount; ++k) {
    EXPECT_EQ(Block(k), index_.Find(k % 3 == 0 ? 6 : 5, k * kStep)) << k;
  }
}

TEST_F(BlockIndexTest, TakesOffsetsAndKeysUpToTheLast) {
  constexpr std::uint64_t kLast = std::numeric_limits<std::uint64_t>::max() - kStep + 1;
  constexpr std::uint32_t kLastKey = std::numeric_limits<std::uint32_t>::max();
  MakeBlocks(2);
  index_.Reserve(2, kStep);
  index_.Insert(Block(0), kLastKey, kLast);
  index_.Insert(Block(1), kLastKey, 0);
  EXPECT_EQ(Block(0), index_.Find(kLastKey, kLast));
  EXPECT_EQ(Block(1), index_.Find(kLastKey, 0));
  EXPECT_EQ(nullptr, index_.Find(1, kLast));
}

TEST_F(BlockIndexTest, AllocatesOnlyInReserve) {
  MakeBlocks(64);
  index_.Reserve(64, kStep);
  const auto fillAndEmpty = [this] {
    for (std::size_t k = 0; k < 64; ++k) index_.Insert(Block(k), 1, k * kStep);
    for (std::size_t k = 0; k < 64; ++k) index_.Remove(Block(k));
  };
  // The first time the checker of locks gets to know them.
  fillAndEmpty();
  const std::size_t before = AllocationCounter::Count();
  fillAndEmpty();
  EXPECT_EQ(before, AllocationCounter::Count());
}

// Neither the blocks of one long file, nor the first blocks of many, nor those of a file that is
// read in large strides share chains.
TEST_F(BlockIndexTest, LookUpsDoNotSlowDownAsTheIndexGrows) {
  constexpr std::size_t kMost = 65536;
  MakeBlocks(kMost);
  struct Layout {
    std::uint32_t keyStep;
    std::uint64_t offsetStep;
  };
  for (const Layout layout :
       {Layout{0, kStep}, Layout{1, 0}, Layout{0, 64 * kStep}, Layout{0, std::uint64_t{1} << 32},
        Layout{1, std::uint64_t{1} << 40}}) {
    const auto work = [&](std::size_t count) {
      const auto key = [&](std::size_t k) {
        return static_cast<std::uint32_t>(1 + k * layout.keyStep);
      };
      index_.Reserve(count, kStep);
      for (std::size_t k = 0; k < count; ++k) {
        index_.Insert(Block(k), key(k), k * layout.offsetStep);
      }
      for (std::size_t k = 0; k < count; ++k) {
        ASSERT_EQ(Block(k), index_.Find(key(k), k * layout.offsetStep));
      }
      for (std::size_t k = 0; k < count; ++k) index_.Remove(Block(k));
    };
    EXPECT_TRUE(GrowsLinearly(work, kMost)) << layout.keyStep << ", " << layout.offsetStep;
  }
}

}  // namespace
}  // namespace Orvane
