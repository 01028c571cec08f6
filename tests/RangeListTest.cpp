#include "Cache/RangeList.h"

#include <algorithm>
#include <bitset>
#include <ostream>
#include <random>
#include <stdexcept>
#include <vector>

#include "OrvaneTest.h"

namespace Orvane {

void PrintTo(const ByteRange& range, std::ostream* out) {
  *out << "(" << range.offset << ", " << range.size << ")";
}

namespace {

constexpr std::uint64_t kTop = ByteRange::kLargestOffset;

using Ranges = std::vector<ByteRange>;

Ranges Contents(const RangeList& list) {
  Ranges ranges;
  for (std::size_t i = 0; i < list.Count(); ++i) ranges.push_back(list.At(i));
  return ranges;
}

class RangeListTest : public OrvaneTest {
 protected:
  void Fill(const Ranges& ranges) {
    for (const ByteRange& range : ranges) list_.Add(range);
  }

  RangeList list_;
};

TEST_F(RangeListTest, RangesStandInOrder) {
  Fill({{50, 10}, {10, 10}, {30, 10}});
  EXPECT_EQ((Ranges{{10, 10}, {30, 10}, {50, 10}}), Contents(list_));
}

TEST_F(RangeListTest, ARangeOfNoBytesIsNotAdded) {
  list_.Add({10, 0});
  EXPECT_TRUE(list_.IsEmpty());
}

TEST_F(RangeListTest, AdjacentRangesMerge) {
  Fill({{10, 10}, {30, 10}, {20, 10}});
  EXPECT_EQ((Ranges{{10, 30}}), Contents(list_));
}

TEST_F(RangeListTest, ARangeGrowsByWhatOverlapsIt) {
  Fill({{10, 10}, {15, 10}});
  EXPECT_EQ((Ranges{{10, 15}}), Contents(list_));
  list_.Add({5, 10});
  EXPECT_EQ((Ranges{{5, 20}}), Contents(list_));
  list_.Add({6, 3});
  EXPECT_EQ((Ranges{{5, 20}}), Contents(list_));
}

TEST_F(RangeListTest, ARangeSwallowsAllThatItCovers) {
  Fill({{10, 10}, {30, 10}, {50, 10}, {70, 10}, {90, 10}});
  list_.Add({25, 50});
  EXPECT_EQ((Ranges{{10, 10}, {25, 55}, {90, 10}}), Contents(list_));
}

TEST_F(RangeListTest, ARangeThatWrapsEndsAtTheTop) {
  list_.Add({kTop - 10, 100});
  EXPECT_EQ((Ranges{{kTop - 10, 10}}), Contents(list_));
  list_.Add({5, kTop});
  EXPECT_EQ((Ranges{{5, kTop - 5}}), Contents(list_));
  EXPECT_EQ((ByteRange{kTop - 3, 3}), list_.Take({kTop - 3, kTop}));
  EXPECT_EQ((Ranges{{5, kTop - 8}}), Contents(list_));
}

TEST_F(RangeListTest, TakeRemovesAWholeRange) {
  Fill({{10, 10}, {30, 10}});
  EXPECT_EQ((ByteRange{10, 10}), list_.Take({10, 10}));
  EXPECT_EQ((Ranges{{30, 10}}), Contents(list_));
}

TEST_F(RangeListTest, TakeTrimsARangeAtItsFront) {
  Fill({{10, 10}});
  EXPECT_EQ((ByteRange{10, 4}), list_.Take({10, 4}));
  EXPECT_EQ((Ranges{{14, 6}}), Contents(list_));
}

TEST_F(RangeListTest, TakeTrimsARangeAtItsBack) {
  Fill({{10, 10}});
  EXPECT_EQ((ByteRange{16, 4}), list_.Take({16, 100}));
  EXPECT_EQ((Ranges{{10, 6}}), Contents(list_));
}

TEST_F(RangeListTest, TakeSplitsARange) {
  Fill({{10, 10}});
  EXPECT_EQ((ByteRange{13, 4}), list_.Take({13, 4}));
  EXPECT_EQ((Ranges{{10, 3}, {17, 3}}), Contents(list_));
}

TEST_F(RangeListTest, TakeStartsAtTheRangeThatHoldsTheLastByte) {
  Fill({{10, 10}});
  EXPECT_EQ((ByteRange{10, 5}), list_.Take({0, 15}));
  EXPECT_EQ((Ranges{{15, 5}}), Contents(list_));
  EXPECT_EQ((ByteRange{15, 5}), list_.Take({0, 20}));
  EXPECT_TRUE(list_.IsEmpty());
}

TEST_F(RangeListTest, TakeCutsOneRangeOnly) {
  Fill({{10, 10}, {30, 10}});
  EXPECT_EQ((ByteRange{15, 5}), list_.Take({15, 20}));
  EXPECT_EQ((Ranges{{10, 5}, {30, 10}}), Contents(list_));
}

// KEPT.
TEST_F(RangeListTest, TakeFindsNothingAroundARange) {
  Fill({{10, 10}});
  EXPECT_EQ(ByteRange{}, list_.Take({5, 20}));
  EXPECT_EQ(ByteRange{}, list_.Take({9, 12}));
  EXPECT_EQ((Ranges{{10, 10}}), Contents(list_));
}

TEST_F(RangeListTest, TakeOutsideOfAllRangesFindsNothing) {
  Fill({{10, 10}});
  EXPECT_EQ(ByteRange{}, list_.Take({0, 10}));
  EXPECT_EQ(ByteRange{}, list_.Take({20, 10}));
  EXPECT_EQ(ByteRange{}, list_.Take({kTop, 1}));
}

TEST_F(RangeListTest, TakeOfNoBytesChangesNothing) {
  Fill({{10, 10}});
  EXPECT_EQ((ByteRange{15, 0}), list_.Take({15, 0}));
  EXPECT_EQ(ByteRange{}, list_.Take({20, 0}));
  EXPECT_EQ(ByteRange{}, list_.Take({0, 0}));
  EXPECT_EQ((Ranges{{10, 10}}), Contents(list_));
}

TEST_F(RangeListTest, TheFirstRangeBehindAnOffsetIsFound) {
  Fill({{10, 10}, {30, 10}});
  EXPECT_EQ((ByteRange{10, 10}), *list_.FindEndingBehind(0));
  EXPECT_EQ((ByteRange{10, 10}), *list_.FindEndingBehind(19));
  EXPECT_EQ((ByteRange{30, 10}), *list_.FindEndingBehind(20));
  EXPECT_EQ(nullptr, list_.FindEndingBehind(40));
  EXPECT_EQ(nullptr, RangeList().FindEndingBehind(0));
}

TEST_F(RangeListTest, FewRangesAllocateNothing) {
  const std::size_t before = AllocationCounter::Count();
  RangeList list;
  for (std::uint64_t i = 0; i < RangeList::kRangesWithoutAllocation; ++i) list.Add({20 * i, 10});
  list.Add({5, 10});
  list.Take({20, 5});
  list.Clear();
  EXPECT_EQ(before, AllocationCounter::Count());
}

TEST_F(RangeListTest, AListThatIsFullRefusesOneMore) {
  RangeList list(3);
  for (std::uint64_t i = 0; i < 3; ++i) list.Add({20 * i, 10});
  const Ranges before = Contents(list);
  try {
    list.Add({100, 10});
    FAIL() << "added";
  } catch (const std::length_error& error) {
    EXPECT_STREQ("list too long", error.what());
  }
  EXPECT_THROW(list.Take({22, 2}), std::length_error);
  EXPECT_EQ(before, Contents(list));
  list.Add({10, 10});
  EXPECT_EQ((Ranges{{0, 30}, {40, 10}}), Contents(list));
}

TEST_F(RangeListTest, AChangeThatFindsNoMemoryChangesNothing) {
  const Ranges full{{0, 10}, {20, 10}, {40, 10}, {60, 10}};
  Fill(full);
  {
    const AllocationFailure failure(1);
    EXPECT_THROW(list_.Add({80, 10}), std::bad_alloc);
  }
  {
    const AllocationFailure failure(1);
    EXPECT_THROW(list_.Take({42, 5}), std::bad_alloc);
  }
  EXPECT_EQ(full, Contents(list_));
  list_.Add({80, 10});
  EXPECT_EQ(5u, list_.Count());
}

// Bit by bit: what the list says of every byte, against random changes.
TEST_F(RangeListTest, AgreesWithAMapOfTheBytes) {
  constexpr std::size_t kBytes = 256;
  std::mt19937 random(7);
  std::bitset<kBytes + 1> bytes;
  for (int step = 0; step < 20000; ++step) {
    const std::size_t offset = random() % kBytes;
    const std::size_t size = random() % std::min<std::size_t>(24, kBytes - offset + 1);
    if (random() % 2 == 0) {
      list_.Add({offset, size});
      for (std::size_t i = offset; i < offset + size; ++i) bytes.set(i);
    } else {
      const bool findsAny = bytes.test(offset) || (size > 0 && bytes.test(offset + size - 1));
      const ByteRange cut = list_.Take({offset, size});
      ASSERT_EQ(findsAny && size > 0, cut.size > 0);
      for (std::size_t i = cut.offset; i < cut.End(); ++i) {
        ASSERT_TRUE(bytes.test(i) && i >= offset && i < offset + size);
        bytes.reset(i);
      }
      ASSERT_TRUE(size == 0 || !bytes.test(offset)) << "the first byte was there and stays";
    }
    Ranges expected;
    for (std::size_t i = 0; i < kBytes; ++i) {
      if (!bytes.test(i)) continue;
      if (i == 0 || !bytes.test(i - 1)) expected.push_back({i, 0});
      ++expected.back().size;
    }
    ASSERT_EQ(expected, Contents(list_)) << "step " << step;
  }
}

using RangeListGrowthTest = RangeListTest;

TEST_F(RangeListGrowthTest, LookingUpDoesNotDependOnTheLength) {
  RangeList list;
  for (std::uint64_t i = 0; i < 65536; ++i) list.Add({2 * i, 1});
  const auto work = [&list](std::size_t count) {
    for (std::uint64_t i = 0; i < count; ++i) {
      EXPECT_EQ((ByteRange{2 * i, 1}), *list.FindEndingBehind(2 * i));
      list.Add({2 * i, 1});
    }
  };
  EXPECT_TRUE(GrowsLinearly(work, list.Count()));
}

}  // namespace
}  // namespace Orvane
