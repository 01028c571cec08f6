#include <malloc.h>
#include <time.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "CacheGrowth.h"
#include "InlineSource.h"
#include "LibraryObjects.h"
#include "Registration.h"

namespace bench {
namespace {

constexpr std::uint64_t kBlock = 4096;
constexpr std::size_t kManyBlocks = 262144;
constexpr std::chrono::milliseconds kWatched{1000};

// Of the heap.
double AllocatedBytes() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks) + static_cast<double>(info.hblkhd);
}

double ProcessorSeconds() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

Orvane::BufferFactory* NewFactory(std::size_t blocks) {
  auto* const factory = new Orvane::BufferFactoryPhysMem;
  factory->Initialize(kBlock, blocks, blocks, 0);
  return factory;
}

// The time of the constructor alone, and what it leaves on the heap.
void Start(benchmark::State& state) {
  Orvane::BufferFactory* const factory = NewFactory(kManyBlocks);
  double bytes = 0;
  double usedBytes = 0;
  double seconds = 0;
  for (auto _ : state) {
    const double before = AllocatedBytes();
    const auto begin = std::chrono::steady_clock::now();
    auto* const cache = new Orvane::Cache(factory);
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    bytes = AllocatedBytes() - before;
    InlineSource* const source = new InlineSource(cache);
    Blocks memory(64 * kBlock, 1);
    Orvane::BufferList* const list = memory.NewListOfOne();
    for (std::size_t k = 0; k < kManyBlocks; k += 64) {
      source->ReadWithList(k * kBlock, list, nullptr);
    }
    usedBytes = AllocatedBytes() - before;
    Drop(list);
    source->Cancel();
    Drop(source);
    Drop(cache);
  }
  Drop(factory);
  state.counters["s to start"] = seconds;
  state.counters["B/block at first"] = bytes / static_cast<double>(kManyBlocks);
  state.counters["B/block in use"] = usedBytes / static_cast<double>(kManyBlocks);
}

double PercentOfACore() {
  const double before = ProcessorSeconds();
  std::this_thread::sleep_for(kWatched);
  return (ProcessorSeconds() - before) / std::chrono::duration<double>(kWatched).count() * 100;
}

// Never ends a read, until it is cancelled.
class SilentSource : public InlineSource {
 public:
  SilentSource(Orvane::Cache* cache, Result_t answer) : InlineSource(cache), answer_(answer) {}

  Result_t ReadAsyncWithListNonCached(std::uint64_t offset, Orvane::BufferList* list,
                                      ResultCallbackBufferList* callback, std::uint32_t) override {
    if (answer_ != kResultPending) return answer_;
    list->AddRef("benchmarks/CacheFootprint", "SilentSource::Read", __LINE__);
    callback->AddRef("benchmarks/CacheFootprint", "SilentSource::Read", __LINE__);
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

void Idle(benchmark::State& state) {
  Orvane::Cache* const cache = NewCache({kBlock, 1024});
  double percent = 0;
  for (auto _ : state) percent = PercentOfACore();
  Drop(cache);
  state.counters["% of a core"] = percent;
}

// Four times as many readers as there are blocks.
void Waiting(benchmark::State& state, Orvane::CacheSource::Result_t answer) {
  constexpr std::size_t kReaders = 64;
  Orvane::Cache* const cache = NewCache({kBlock, kReaders / 4});
  auto* const source = new SilentSource(cache, answer);
  Blocks memory(kBlock, kReaders);
  auto* const ignore = new Ignore;
  std::vector<Orvane::BufferList*> lists;
  for (std::size_t k = 0; k < kReaders; ++k) {
    lists.push_back(memory.NewListOfOne());
    source->ReadAsyncWithList(2 * k * kBlock, lists.back(), ignore, 0);
  }
  double percent = 0;
  for (auto _ : state) percent = PercentOfACore();
  source->Cancel();
  for (Orvane::BufferList* const list : lists) Drop(list);
  Drop(ignore);
  Drop(source);
  Drop(cache);
  state.counters["% of a core"] = percent;
}

template <typename Run>
void Register(const char* name, Run run) {
  benchmark::RegisterBenchmark(name, run)
      ->Iterations(1)
      ->UseRealTime()
      ->MeasureProcessCPUTime()
      ->Unit(benchmark::kMillisecond);
}

}  // namespace

void RegisterCacheFootprint() {
  using Orvane::CacheSource;
  Register("footprint/cache of 262144 blocks", Start);
  Register("footprint/idle cache", Idle);
  Register("footprint/readers wait for blocks",
           [](benchmark::State& state) { Waiting(state, CacheSource::kResultPending); });
  Register("footprint/source is busy",
           [](benchmark::State& state) { Waiting(state, CacheSource::kResultBusy); });
}

}  // namespace bench
