// What caches cost beside their buffers, and while they wait.
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "BenchHost.h"
#include "InlineSource.h"
#include "LatencyHistogram.h"
#include "LibraryObjects.h"
#include "Suite.h"

namespace bench {
namespace {

constexpr std::uint64_t kBlock = 4096;
constexpr std::size_t kManyBlocks = 262144;
constexpr std::chrono::milliseconds kWatched{1000};

std::vector<Value> MeasureStart() {
  auto* const factory = new Orvane::BufferFactoryPhysMem;
  factory->Initialize(kBlock, kManyBlocks, kManyBlocks, 0);
  const std::uint64_t before = GetHeapBytes();
  const auto begin = Clock::now();
  auto* const cache = new Orvane::Cache(factory);
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  const std::uint64_t atFirst = GetHeapBytes() - before;
  auto* const source = new InlineSource(cache);
  Blocks memory(64 * kBlock, 1, 1);
  Orvane::BufferList* const list = memory.NewList();
  bool good = true;
  for (std::size_t k = 0; k < kManyBlocks; k += 64) {
    good &= source->ReadWithList(k * kBlock, list, nullptr) == Orvane::CacheSource::kResultOK;
  }
  const std::uint64_t inUse = GetHeapBytes() - before;
  Drop(list);
  source->Cancel();
  Drop(source);
  Drop(cache);
  Drop(factory);
  if (!good) throw std::runtime_error("cannot fill the cache");
  constexpr auto kBlocks = static_cast<double>(kManyBlocks);
  return {{"time to start", "s", seconds},
          {"heap when empty", "B/block", static_cast<double>(atFirst) / kBlocks},
          {"heap when every block is in use", "B/block", static_cast<double>(inUse) / kBlocks}};
}

double PercentOfACore() {
  const double before = ProcessorSeconds();
  std::this_thread::sleep_for(kWatched);
  return (ProcessorSeconds() - before) / std::chrono::duration<double>(kWatched).count() * 100;
}

// Never ends a read until it is cancelled, or never starts one.
class SilentSource : public InlineSource {
 public:
  SilentSource(Orvane::Cache* cache, Result_t answer) : InlineSource(cache), answer_(answer) {}

  Result_t ReadAsyncWithListNonCached(std::uint64_t offset, Orvane::BufferList* list,
                                      ResultCallbackBufferList* callback, std::uint32_t) override {
    if (answer_ != kResultPending) return answer_;
    list->AddRef("benchmarks/FootprintFigures", "SilentSource::Read", __LINE__);
    callback->AddRef("benchmarks/FootprintFigures", "SilentSource::Read", __LINE__);
    open_.push_back({offset, list, callback});
    return answer_;
  }
  void CancelNonCached() override {
    for (const Open& open : std::exchange(open_, {})) {
      open.callback->Callback(kResultFailed, open.offset, open.list, 0);
      Drop(open.callback);
      Drop(open.list);
    }
  }

 private:
  struct Open {
    std::uint64_t offset;
    Orvane::BufferList* list;
    ResultCallbackBufferList* callback;
  };

  const Result_t answer_;
  std::vector<Open> open_;  // only one thread of the cache reads, and it is held by a cancel
};

class Ignore : public Orvane::FileSource::ResultCallbackBufferList {
 public:
  void Callback(Orvane::CacheSource::Result_t, std::uint64_t, Orvane::BufferList*,
                std::uint64_t) override {}
};

std::vector<Value> MeasureIdle() {
  Orvane::Cache* const cache = NewCache({kBlock, 1024});
  const double percent = PercentOfACore();
  Drop(cache);
  return {{"processor time", "% of a core", percent}};
}

// Four times as many readers as there are blocks.
std::vector<Value> MeasureWaiting(Orvane::CacheSource::Result_t answer) {
  constexpr std::size_t kReaders = 64;
  Orvane::Cache* const cache = NewCache({kBlock, kReaders / 4});
  auto* const source = new SilentSource(cache, answer);
  Blocks memory(kBlock, kReaders, 1);
  auto* const ignore = new Ignore;
  std::vector<Orvane::BufferList*> lists;
  for (std::size_t k = 0; k < kReaders; ++k) {
    lists.push_back(memory.NewList());
    source->ReadAsyncWithList(2 * k * kBlock, lists.back(), ignore, 0);
  }
  const double percent = PercentOfACore();
  source->Cancel();
  for (Orvane::BufferList* const list : lists) Drop(list);
  Drop(ignore);
  Drop(source);
  Drop(cache);
  return {{"processor time", "% of a core", percent}};
}

}  // namespace

void AddFootprintFigures(Suite* suite) {
  using Orvane::CacheSource;
  suite->figures.push_back({"a cache of 262144 blocks of 4 KiB",
                            MeasureStart,
                            {{"P16", "time to start", false, 0.3},
                             {"P16", "heap when every block is in use", false, 400}}});
  suite->figures.push_back({"an idle cache", MeasureIdle, {}});
  const std::vector<FigureAim> waiting{{"P15", "processor time", false, 5}};
  suite->figures.push_back({"64 readers wait for 16 blocks",
                            [] { return MeasureWaiting(CacheSource::kResultPending); }, waiting});
  suite->figures.push_back({"64 readers wait for a source that is busy",
                            [] { return MeasureWaiting(CacheSource::kResultBusy); }, waiting});
}

}  // namespace bench
