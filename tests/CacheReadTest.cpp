#include "CacheFixture.h"

namespace Orvane {
namespace {

class CacheReadTest : public CacheFixture {};

TEST_F(CacheReadTest, ServesAnyRangeFromBlocks) {
  MakeCache(8);
  const std::string contents = MemorySource::Pattern(5 * kBlock + 100);
  MemorySource* const source = MakeSource(contents);
  EXPECT_EQ(contents.substr(10, 20), Read(source, 10, 20));
  EXPECT_EQ(contents.substr(4000, 9000), Read(source, 4000, 9000));
  EXPECT_EQ(contents.substr(kBlock, kBlock), Read(source, kBlock, kBlock));
  EXPECT_EQ(contents.substr(5 * kBlock, 100), Read(source, 5 * kBlock, 100));
  Report report{};
  EXPECT_EQ(contents.substr(5 * kBlock + 50), Read(source, 5 * kBlock + 50, 500, &report));
  EXPECT_EQ((Report{CacheSource::kResultPartial, 50}), report);
  Read(source, 6 * kBlock, 10, &report);
  EXPECT_EQ((Report{CacheSource::kResultOutOfRange, 0}), report);
}

TEST_F(CacheReadTest, EvictsWhenTheSourceIsLargerThanTheCache) {
  MakeCache(3);
  const std::string contents = MemorySource::Pattern(64 * kBlock);
  MemorySource* const source = MakeSource(contents);
  for (int round = 0; round < 2; ++round) {
    for (std::size_t offset = 0; offset < contents.size(); offset += 3000) {
      const std::size_t size = std::min<std::size_t>(10000, contents.size() - offset);
      ASSERT_EQ(contents.substr(offset, size), Read(source, offset, size)) << offset;
    }
  }
}

}  // namespace
}  // namespace Orvane
