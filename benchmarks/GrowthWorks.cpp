// What hits, misses and evictions cost in small and in large caches.
#include <atomic>
#include <cstring>
#include <stdexcept>
#include <string>

#include "BenchHost.h"
#include "InlineSource.h"
#include "LatencyHistogram.h"
#include "LibraryObjects.h"
#include "Sizes.h"
#include "Suite.h"

namespace bench {
namespace {

using Orvane::CacheSource;

constexpr std::uint64_t kBlock = 4096;
constexpr std::size_t kFewBlocks = 1024;
constexpr std::size_t kManyBlocks = 256 * kFewBlocks;
constexpr std::size_t kHits = 100000;
constexpr std::size_t kMisses = 20000;

// A cache over an InlineSource, every block of which has been filled and written to.
class FilledCache {
 public:
  explicit FilledCache(std::size_t blocks)
      : cache_(NewCache({kBlock, blocks})), source_(new InlineSource(cache_)) {
    Drop(cache_);
    Blocks memory(kBlock * kChunk, 1, 1);
    Orvane::BufferList* const list = memory.NewList();
    source_->FillBuffers(true);
    bool good = true;
    for (std::size_t k = 0; k < blocks; k += kChunk) {
      good &= source_->ReadWithList(k * kBlock, list, nullptr) == CacheSource::kResultOK;
    }
    source_->FillBuffers(false);
    Drop(list);
    if (good) return;
    End();
    throw std::runtime_error("cannot fill the cache");
  }
  ~FilledCache() { End(); }
  FilledCache(const FilledCache&) = delete;
  FilledCache& operator=(const FilledCache&) = delete;

  InlineSource* GetSource() const { return source_; }

 private:
  static constexpr std::size_t kChunk = 64;

  void End() {
    source_->Cancel();
    Drop(source_);
  }

  Orvane::Cache* const cache_;  // the source's
  InlineSource* const source_;
};

// Reads of `bytes` at random places among the first `touched` blocks.
class HitRunner : public Runner {
 public:
  HitRunner(std::size_t blocks, std::size_t touched, std::uint64_t bytes)
      : cache_(blocks),
        memory_(bytes, 1, 1),
        list_(memory_.NewList()),
        offsets_(RandomOffsets(touched * kBlock, kBlock, kHits)) {}
  ~HitRunner() override { Drop(list_); }

  void Pass(LatencyHistogram* latencies) override {
    for (const std::uint64_t offset : offsets_) {
      const auto start = latencies ? Clock::now() : Clock::time_point();
      const auto result = cache_.GetSource()->ReadWithList(offset, list_, nullptr);
      if (latencies) latencies->RecordSince(start);
      if (result != CacheSource::kResultOK) throw std::runtime_error("a read failed");
    }
  }

 private:
  const FilledCache cache_;
  Blocks memory_;
  Orvane::BufferList* const list_;
  const std::vector<std::uint64_t> offsets_;
};

// What the memory of the machine costs: the same copies and nothing else.
class CopyRunner : public Runner {
 public:
  CopyRunner(std::size_t blocks, std::uint64_t bytes)
      : blocks_(kBlock, blocks),
        target_(kBlock, 1),
        bytes_(bytes),
        offsets_(RandomOffsets(blocks * kBlock, kBlock, kHits)) {}

  void Pass(LatencyHistogram* latencies) override {
    for (const std::uint64_t offset : offsets_) {
      const auto start = latencies ? Clock::now() : Clock::time_point();
      std::memcpy(target_[0], blocks_[0] + offset, bytes_);
      std::atomic_signal_fence(std::memory_order_seq_cst);
      if (latencies) latencies->RecordSince(start);
    }
  }

 private:
  const AlignedBlocks blocks_;
  const AlignedBlocks target_;
  const std::uint64_t bytes_;
  const std::vector<std::uint64_t> offsets_;
};

// Reads of blocks that were never read before, so many in flight. Every one evicts another.
class MissRunner : public Runner {
 public:
  MissRunner(std::size_t blocks, std::uint64_t bytes, std::size_t depth)
      : cache_(blocks),
        memory_(bytes, depth, 1),
        next_(blocks),
        finished_(Orvane::MTInterface::NewSemaphore(1, 0)) {
    for (std::size_t k = 0; k < depth; ++k) lanes_.push_back(new Lane(this, memory_.NewList()));
  }
  ~MissRunner() override {
    cache_.GetSource()->Cancel();
    for (Lane* const lane : lanes_) Drop(lane);
  }

  void Pass(LatencyHistogram* latencies) override {
    latencies_ = latencies;
    end_ = next_ + kMisses;
    running_ = lanes_.size();
    for (Lane* const lane : lanes_) lane->StartNext();
    finished_->Wait(0xFFFFFFFF, 1);
    next_ = end_;
    if (failed_) throw std::runtime_error("a read failed");
  }

 private:
  class Lane : public Orvane::FileSource::ResultCallbackBufferList {
   public:
    Lane(MissRunner* runner, Orvane::BufferList* list) : runner_(runner), list_(list) {}

    // Until one is under way, or none is left.
    void StartNext() {
      for (;;) {
        const std::uint64_t block = runner_->next_.fetch_add(1);
        if (block >= runner_->end_) break;
        if (runner_->latencies_) start_ = Clock::now();
        // Every other block: two misses are never gathered into one read.
        const auto result = runner_->cache_.GetSource()->ReadAsyncWithList(
            2 * block * kBlock, list_, this, CacheSource::kDueASAP);
        if (result == CacheSource::kResultPending) return;
        runner_->failed_ = true;
      }
      if (runner_->running_.fetch_sub(1) == 1) runner_->finished_->Release(1);
    }
    void Callback(CacheSource::Result_t result, std::uint64_t, Orvane::BufferList*,
                  std::uint64_t) override {
      if (result != CacheSource::kResultOK) runner_->failed_ = true;
      if (runner_->latencies_) runner_->latencies_->RecordSince(start_);
      StartNext();
    }

   protected:
    ~Lane() override { Drop(list_); }

   private:
    MissRunner* const runner_;
    Orvane::BufferList* const list_;  // one reference
    Clock::time_point start_;
  };

  const FilledCache cache_;
  Blocks memory_;
  std::atomic<std::uint64_t> next_;
  std::uint64_t end_ = 0;
  std::atomic<std::size_t> running_{0};
  std::atomic<bool> failed_{false};
  const std::unique_ptr<Orvane::MTSemaphore> finished_;
  std::vector<Lane*> lanes_;
  LatencyHistogram* latencies_ = nullptr;
};

std::string BlocksText(std::size_t blocks) {
  return std::to_string(blocks) + " blocks";
}

// `make` for each size of cache; the largest against the smallest.
template <typename Make>
void AddGrowth(Suite* suite, const std::string& name, const std::string& unit, std::size_t items,
               bool isAim, Make make) {
  Work work{name, unit, items, {}, {}};
  for (std::size_t blocks = kFewBlocks; blocks <= kManyBlocks; blocks *= 16) {
    work.contenders.push_back(
        {BlocksText(blocks), [make, blocks] { return make(blocks); }, static_cast<double>(blocks)});
  }
  if (isAim) {
    work.aims.push_back(
        {"P12", BlocksText(kManyBlocks), {BlocksText(kFewBlocks)}, Measure::kTime, false, 1.2});
  }
  suite->works.push_back(work);
}

}  // namespace

void AddGrowthWorks(Suite* suite) {
  AddGrowth(
      suite, "growth: hits of 4 KiB among 1024 blocks of the cache", "hits", kHits, true,
      [](std::size_t blocks) { return std::make_unique<HitRunner>(blocks, kFewBlocks, kBlock); });
  AddGrowth(suite, "growth: hits of 4 KiB among all blocks", "hits", kHits, false,
            [](std::size_t blocks) { return std::make_unique<HitRunner>(blocks, blocks, kBlock); });
  AddGrowth(suite, "growth: memcpy of 4 KiB out of as much memory", "copies", kHits, false,
            [](std::size_t blocks) { return std::make_unique<CopyRunner>(blocks, kBlock); });
  AddGrowth(suite, "growth: hits of 64 B among all blocks", "hits", kHits, false,
            [](std::size_t blocks) { return std::make_unique<HitRunner>(blocks, blocks, 64); });
  AddGrowth(suite, "growth: memcpy of 64 B out of as much memory", "copies", kHits, false,
            [](std::size_t blocks) { return std::make_unique<CopyRunner>(blocks, 64); });
  AddGrowth(suite, "growth: misses of 4 KiB with an eviction each, 61 in flight", "misses", kMisses,
            true,
            [](std::size_t blocks) { return std::make_unique<MissRunner>(blocks, kBlock, 61); });
  AddGrowth(suite, "growth: misses of 4 KiB with an eviction each, one at a time", "misses",
            kMisses, true,
            [](std::size_t blocks) { return std::make_unique<MissRunner>(blocks, kBlock, 1); });
}

}  // namespace bench
