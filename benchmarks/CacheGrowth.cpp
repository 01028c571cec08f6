#include "CacheGrowth.h"

#include <algorithm>
#include <atomic>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Cache/CommandProcessor.h"
#include "InlineSource.h"
#include "LibraryObjects.h"
#include "OSServices/LockClass.h"
#include "Registration.h"
#include "TestFile.h"

namespace bench {
namespace {

using Orvane::CacheSource;

constexpr std::uint64_t kBlock = 4096;
constexpr std::size_t kFewBlocks = 1024;
constexpr std::size_t kHits = 200000;
constexpr std::size_t kMisses = 20000;

// A cache over an InlineSource, every block of which has been filled and written to.
class FilledCache {
 public:
  explicit FilledCache(std::size_t blocks)
      : cache_(NewCache({kBlock, blocks})), source_(new InlineSource(cache_)) {
    Drop(cache_);
    Blocks memory(kBlock * kChunk, 1);
    Orvane::BufferList* const list = memory.NewListOfOne();
    for (std::size_t k = 0; k < blocks; k += kChunk) {
      source_->ReadWithList(k * kBlock, list, nullptr);
    }
    Drop(list);
  }
  ~FilledCache() {
    source_->Cancel();
    Drop(source_);
  }
  FilledCache(const FilledCache&) = delete;
  FilledCache& operator=(const FilledCache&) = delete;

  InlineSource* GetSource() const { return source_; }

 private:
  static constexpr std::size_t kChunk = 64;

  Orvane::Cache* const cache_;  // the source's
  InlineSource* const source_;
};

void Finish(benchmark::internal::Benchmark* benchmark) {
  benchmark->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
}

// Reads `bytes` at random among the first `touched` blocks.
void RegisterHits(const std::string& work, std::size_t blocks, std::size_t touched,
                  std::uint64_t bytes) {
  auto run = [=](benchmark::State& state) {
    const FilledCache cache(blocks);
    Blocks memory(bytes, 1);
    Orvane::BufferList* const list = memory.NewListOfOne();
    const auto offsets = RandomOffsets(touched * kBlock, kBlock, kHits);
    const auto readAll = [&] {
      for (const std::uint64_t offset : offsets) {
        cache.GetSource()->ReadWithList(offset, list, nullptr);
      }
    };
    readAll();
    for (auto _ : state) readAll();
    Drop(list);
    CountItems(&state, offsets.size(), "hits/s");
  };
  Finish(benchmark::RegisterBenchmark(
      ("growth/" + work + "/" + std::to_string(blocks) + " blocks").c_str(), run));
}

// Starts the next read when one has ended, as many at once as there are of it.
class MissLane : public Orvane::FileSource::ResultCallbackBufferList {
 public:
  struct Shared {
    InlineSource* source;
    std::uint64_t end;
    std::atomic<std::uint64_t> next;
    std::atomic<std::size_t> running{0};
    std::unique_ptr<Orvane::MTSemaphore> finished{Orvane::MTInterface::NewSemaphore(1, 0)};
  };

  MissLane(Shared* shared, Orvane::BufferList* list) : shared_(shared), list_(list) {}

  void StartNext() {
    const std::uint64_t block = shared_->next.fetch_add(1);
    if (block >= shared_->end) {
      if (shared_->running.fetch_sub(1) == 1) shared_->finished->Release(1);
      return;
    }
    // Every other block: two misses are never gathered into one read.
    shared_->source->ReadAsyncWithList(2 * block * kBlock, list_, this, CacheSource::kDueASAP);
  }
  void Callback(CacheSource::Result_t, std::uint64_t, Orvane::BufferList*, std::uint64_t) override {
    StartNext();
  }

 protected:
  ~MissLane() override { Drop(list_); }

 private:
  Shared* const shared_;
  Orvane::BufferList* const list_;  // one reference
};

// Reads `bytes` of blocks that were never read before. Every one of them evicts another.
void RegisterMisses(const std::string& work, std::size_t blocks, std::uint64_t bytes,
                    std::size_t depth) {
  auto run = [=](benchmark::State& state) {
    const FilledCache cache(blocks);
    Blocks memory(bytes, depth);
    MissLane::Shared shared{cache.GetSource(), 0, blocks};
    std::vector<MissLane*> lanes;
    for (std::size_t k = 0; k < depth; ++k) {
      lanes.push_back(new MissLane(&shared, memory.NewListOfOne()));
    }
    const auto readAll = [&] {
      shared.end = shared.next + kMisses;
      shared.running = depth;
      for (MissLane* const lane : lanes) lane->StartNext();
      shared.finished->Wait(0xFFFFFFFF, 1);
      shared.next = shared.end;
    };
    readAll();
    for (auto _ : state) readAll();
    cache.GetSource()->Cancel();
    for (MissLane* const lane : lanes) Drop(lane);
    CountItems(&state, kMisses, "misses/s");
  };
  Finish(benchmark::RegisterBenchmark(
      ("growth/" + work + "/" + std::to_string(blocks) + " blocks").c_str(), run));
}

std::vector<std::uint32_t> ShuffledDueTimes(std::size_t count) {
  std::vector<std::uint32_t> dueTimes(count);
  std::iota(dueTimes.begin(), dueTimes.end(), Orvane::MTInterface::GetCurrentTimeMilli() + 1000);
  std::shuffle(dueTimes.begin(), dueTimes.end(), std::mt19937_64(3));
  return dueTimes;
}

class CountingCommand : public Orvane::Command {
 public:
  CountingCommand(std::uint32_t dueTime, std::atomic<std::size_t>* left,
                  Orvane::MTSemaphore* finished)
      : Command(Orvane::kCommandRead, dueTime), left_(left), finished_(finished) {}
  bool Execute() override { return true; }
  void Finish(bool) override {
    std::atomic<std::size_t>* const left = left_;
    Orvane::MTSemaphore* const finished = finished_;
    delete this;
    if (left->fetch_sub(1) == 1) finished->Release(1);
  }

 private:
  std::atomic<std::size_t>* const left_;
  Orvane::MTSemaphore* const finished_;
};

// Queues `queued` commands while the worker is held, then lets it run them all; as often as it
// takes for the same number of commands.
void RunCommands(benchmark::State* state, std::size_t queued, std::size_t total) {
  const std::uint32_t kind = Orvane::kCommandRead;
  const std::unique_ptr<Orvane::MTSemaphore> finished(Orvane::MTInterface::NewSemaphore(1, 0));
  Orvane::CommandProcessor processor(&kind, 1, Orvane::MTThread::kPriorityNormal,
                                     Orvane::LockClass::kReadSection);
  const std::vector<std::uint32_t> dueTimes = ShuffledDueTimes(queued);
  std::atomic<std::size_t> left = 0;
  for (auto _ : *state) {
    for (std::size_t round = 0; round < total / queued; ++round) {
      left = queued;
      processor.Hold();
      for (const std::uint32_t dueTime : dueTimes) {
        processor.Add(new CountingCommand(dueTime, &left, finished.get()));
      }
      processor.Release();
      finished->Wait(0xFFFFFFFF, 1);
    }
  }
  CountItems(state, total, "commands/s");
}

void RegisterCommands() {
  constexpr std::size_t kTotal = 100000;
  for (const std::size_t queued : {kTotal / 100, kTotal}) {
    auto run = [=](benchmark::State& state) { RunCommands(&state, queued, kTotal); };
    Finish(benchmark::RegisterBenchmark(
        ("growth/commands, shuffled due times/" + std::to_string(queued) + " queued").c_str(),
        run));
  }
}

}  // namespace

void RegisterCacheGrowth() {
  for (const std::size_t blocks : {kFewBlocks, 16 * kFewBlocks, 256 * kFewBlocks}) {
    RegisterHits("hits 4 KiB, 1024 blocks touched", blocks, kFewBlocks, kBlock);
    RegisterHits("hits 4 KiB, all blocks touched", blocks, blocks, kBlock);
    RegisterHits("hits 64 B, all blocks touched", blocks, blocks, 64);
    RegisterMisses("misses 4 KiB, 61 in flight", blocks, kBlock, 61);
    RegisterMisses("misses 64 B, 61 in flight", blocks, 64, 61);
    RegisterMisses("misses 4 KiB, one at a time", blocks, kBlock, 1);
  }
  RegisterCommands();
}

}  // namespace bench
