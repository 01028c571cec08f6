// The base of every source: its key, its cache, its alignment, clipping of ranges.
#include "CacheSource.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "Cache.h"
#include "OrvaneTest.h"
#include "PhysMemInterface.h"

namespace Orvane {
namespace {

// The least that makes a source; opens up the hooks that a cache calls.
class TestSource : public CacheSource {
 public:
  TestSource() = default;

  bool CanGatherReads() override { return false; }
  using CacheSource::PreReadTransaction;
  using CacheSource::SupportsPreReadTransactions;

 protected:
  ~TestSource() override = default;
  Result_t ReadTransaction(CacheTransaction*) override { return kResultNotSupported; }
  void CancelAllTransactions() override {}
};

class CacheSourceTest : public OrvaneTest {};

using Range = std::pair<std::uint64_t, std::uint64_t>;

// The request clipped to the range, or nothing if they do not meet; untouched in that case.
std::optional<Range> Clip(Range request, Range range) {
  Range clipped = request;
  if (CacheSource::GetRangeIntersection(clipped.first, clipped.second, range.first, range.second)) {
    return clipped;
  }
  EXPECT_EQ(request, clipped);
  return std::nullopt;
}

constexpr std::nullopt_t kNothing = std::nullopt;

TEST_F(CacheSourceTest, ARequestThatStartsInsideIsCutAtTheEndOfTheRange) {
  EXPECT_EQ(Range(12, 8), Clip({12, 8}, {10, 10}));
  EXPECT_EQ(Range(12, 8), Clip({12, 9}, {10, 10}));
  EXPECT_EQ(Range(10, 10), Clip({10, 10}, {10, 10}));
  EXPECT_EQ(Range(19, 1), Clip({19, 100}, {10, 10}));
  EXPECT_EQ(Range(10, 2), Clip({10, 5}, {0, 12}));
}

TEST_F(CacheSourceTest, ARequestThatEndsInsideIsCutAtTheStartOfTheRange) {
  EXPECT_EQ(Range(12, 3), Clip({10, 5}, {12, 10}));
  EXPECT_EQ(Range(10, 1), Clip({0, 11}, {10, 10}));
  EXPECT_EQ(Range(10, 10), Clip({0, 20}, {10, 10}));
}

TEST_F(CacheSourceTest, ARequestThatCoversTheRangeBecomesTheRange) {
  EXPECT_EQ(Range(10, 5), Clip({0, 100}, {10, 5}));
  EXPECT_EQ(Range(10, 5), Clip({9, 7}, {10, 5}));
}

TEST_F(CacheSourceTest, ARequestThatOnlyTouchesTheRangeDoesNotMeetIt) {
  EXPECT_EQ(kNothing, Clip({0, 10}, {10, 5}));
  EXPECT_EQ(kNothing, Clip({15, 10}, {10, 5}));
  EXPECT_EQ(kNothing, Clip({0, 5}, {10, 5}));
  EXPECT_EQ(kNothing, Clip({20, 5}, {10, 5}));
}

TEST_F(CacheSourceTest, AnEmptyRequestMeetsARangeThatItStartsIn) {
  EXPECT_EQ(Range(12, 0), Clip({12, 0}, {10, 5}));
  EXPECT_EQ(Range(10, 0), Clip({10, 0}, {10, 5}));
  EXPECT_EQ(kNothing, Clip({9, 0}, {10, 5}));
  EXPECT_EQ(kNothing, Clip({16, 0}, {10, 5}));
}

// KEPT: the end of the empty request lies in the range, and that alone decides.
TEST_F(CacheSourceTest, AnEmptyRequestAtTheEndOfTheRangeBecomesTheRange) {
  EXPECT_EQ(Range(10, 5), Clip({15, 0}, {10, 5}));
}

TEST_F(CacheSourceTest, AnEmptyRangeMeetsARequestAroundIt) {
  EXPECT_EQ(Range(5, 0), Clip({0, 10}, {5, 0}));
  EXPECT_EQ(kNothing, Clip({5, 10}, {5, 0}));
  EXPECT_EQ(kNothing, Clip({0, 4}, {5, 0}));
}

// KEPT: it does not end before the empty range ends, so it counts as one around it.
TEST_F(CacheSourceTest, ARequestThatEndsAtAnEmptyRangeMeetsIt) {
  EXPECT_EQ(Range(5, 0), Clip({0, 5}, {5, 0}));
}

TEST_F(CacheSourceTest, RangesAtTheTopOfTheNumbers) {
  constexpr std::uint64_t kTop = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(Range(kTop - 5, 5), Clip({kTop - 5, 5}, {kTop - 10, 10}));
  EXPECT_EQ(Range(kTop - 10, 10), Clip({0, kTop}, {kTop - 10, 10}));
}

TEST_F(CacheSourceTest, AlignRoundsDownToAPage) {
  AutoRelease<TestSource> source(new TestSource);
  const std::uint64_t page = PhysMemInterface::GetPageSize();
  EXPECT_EQ(page, source->GetAlignmentRequirement());
  EXPECT_EQ(page, source->Align(page + 1));
  EXPECT_EQ(page, source->Align(2 * page - 1));
  EXPECT_EQ(2 * page, source->Align(2 * page));
  EXPECT_EQ(0U, source->Align(page - 1));
  EXPECT_EQ(0U, source->Align(0));
  EXPECT_EQ(0 - page, source->Align(std::numeric_limits<std::uint64_t>::max()));
}

TEST_F(CacheSourceTest, ASecondCacheIsRefusedAndTheFirstIsKept) {
  AutoRelease<Cache> cache(new Cache(nullptr));
  AutoRelease<Cache> second(new Cache(nullptr));
  AutoRelease<TestSource> source(new TestSource);
  EXPECT_EQ(nullptr, source->GetCache());
  EXPECT_TRUE(source->UseCache(cache));
  EXPECT_FALSE(source->UseCache(second));
  EXPECT_FALSE(source->UseCache(cache));
  EXPECT_EQ(cache.Get(), source->GetCache());
  EXPECT_EQ(2, cache->GetRefCount());
  EXPECT_EQ(1, second->GetRefCount());
}

TEST_F(CacheSourceTest, NoCacheIsRefusedAndDetachesNothing) {
  AutoRelease<Cache> cache(new Cache(nullptr));
  AutoRelease<TestSource> source(new TestSource);
  EXPECT_FALSE(source->UseCache(nullptr));
  EXPECT_TRUE(source->UseCache(cache));
  EXPECT_FALSE(source->UseCache(nullptr));
  EXPECT_EQ(cache.Get(), source->GetCache());
}

TEST_F(CacheSourceTest, TheReferenceOnTheCacheGoesWithTheSource) {
  CallSites sites;
  AutoRelease<Recording<Cache>> cache(new Recording<Cache>(&sites, nullptr));
  AutoRelease<TestSource> source(new TestSource);
  ASSERT_TRUE(source->UseCache(cache));
  source.Release();
  EXPECT_EQ(1, cache->GetRefCount());
  const CallSite kTaken{"source/Cache/CacheSource", "Orvane::CacheSource::UseCache", 38};
  const CallSite kGiven{"source/Cache/CacheSource", "Orvane::CacheSource::~CacheSource", 30};
  EXPECT_EQ(std::vector<CallSite>{kTaken}, sites.added);
  EXPECT_EQ(std::vector<CallSite>{kGiven}, sites.released);
}

TEST_F(CacheSourceTest, EverySourceHasAKeyOfItsOwn) {
  constexpr std::size_t kSources = 100;
  std::set<std::uint32_t> keys;
  std::vector<std::unique_ptr<AutoRelease<TestSource>>> sources;
  for (std::size_t i = 0; i < kSources; ++i) {
    sources.push_back(std::make_unique<AutoRelease<TestSource>>(new TestSource));
    const std::uint32_t key = (*sources.back())->GetSourceKey();
    EXPECT_NE(CacheSource::kInvalidKey, key);
    EXPECT_EQ(key, (*sources.back())->GetSourceKey());
    keys.insert(key);
  }
  EXPECT_EQ(kSources, keys.size());
}

TEST_F(CacheSourceTest, TheHooksOfACacheRefuse) {
  AutoRelease<TestSource> source(new TestSource);
  EXPECT_FALSE(source->SupportsPreReadTransactions());
  source->PreReadTransaction(nullptr);
}

TEST_F(CacheSourceTest, TheNumbersOfTheResultsAreBinding) {
  EXPECT_EQ(-6, CacheSource::kResultBusy);
  EXPECT_EQ(-5, CacheSource::kResultError);
  EXPECT_EQ(-4, CacheSource::kResultUnknown);
  EXPECT_EQ(-3, CacheSource::kResultNotSupported);
  EXPECT_EQ(-2, CacheSource::kResultOutOfRange);
  EXPECT_EQ(-1, CacheSource::kResultFailed);
  EXPECT_EQ(0, CacheSource::kResultNone);
  EXPECT_EQ(1, CacheSource::kResultOK);
  EXPECT_EQ(2, CacheSource::kResultPartial);
  EXPECT_EQ(3, CacheSource::kResultPending);
  EXPECT_EQ(4, CacheSource::kResultLockFailed);
  EXPECT_EQ(0U, CacheSource::kDueASAP);
  EXPECT_EQ(0U, Cache::kDueASAP);
  EXPECT_EQ(0U, CacheSource::kInvalidKey);
}

}  // namespace
}  // namespace Orvane
