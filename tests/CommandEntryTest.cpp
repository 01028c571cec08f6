#include "Cache/CommandEntry.h"

#include <algorithm>
#include <random>

#include "OrvaneTest.h"

namespace Orvane {
namespace {

using CommandEntryTest = OrvaneTest;

CommandEntries Shuffled(std::size_t count, std::uint64_t least, unsigned bits) {
  std::mt19937_64 random(count * 64 + bits);
  CommandEntries entries;
  for (std::size_t k = 0; k < count; ++k) {
    const std::uint64_t more = bits == 0 ? 0 : random() >> (64 - bits);
    entries.push_back({least + more, k + 1, nullptr});
  }
  std::shuffle(entries.begin(), entries.end(), random);
  return entries;
}

TEST_F(CommandEntryTest, AnyNumberWithKeysOfAnyWidthIsSorted) {
  for (const std::size_t count : {0U, 1U, 2U, 127U, 128U, 129U, 3000U}) {
    for (const unsigned bits : {0U, 1U, 8U, 17U, 32U, 41U, 64U}) {
      CommandEntries entries = Shuffled(count, bits == 64 ? 0 : 1000, bits);
      CommandEntries expected = entries;
      std::sort(expected.begin(), expected.end(),
                [](const CommandEntry& a, const CommandEntry& b) { return a.IsBefore(b); });
      SortCommandEntries(&entries);
      const bool isSorted =
          std::equal(entries.begin(), entries.end(), expected.begin(), expected.end(),
                     [](const CommandEntry& a, const CommandEntry& b) {
                       return a.key == b.key && a.number == b.number;
                     });
      EXPECT_TRUE(isSorted) << count << " of " << bits << " bits";
    }
  }
}

TEST_F(CommandEntryTest, RoomIsGivenBackWhenThereWasMuchAndNothingIsLeft) {
  CommandEntries entries(100000);
  ReleaseRoomIfEmpty(&entries);
  EXPECT_EQ(100000u, entries.size());
  entries.clear();
  ReleaseRoomIfEmpty(&entries);
  EXPECT_EQ(0u, entries.capacity());
  entries.reserve(10);
  ReleaseRoomIfEmpty(&entries);
  EXPECT_EQ(10u, entries.capacity());
}

}  // namespace
}  // namespace Orvane
