#include "UncachedReads.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <stdexcept>

#include "Reader.h"

namespace bench {
namespace {

using ReaderFactory = std::unique_ptr<Reader> (*)(const Job&);

void Register(const std::string& name, const Job& job, std::vector<std::uint64_t> offsets,
              ReaderFactory newReader) {
  auto run = [job, offsets = std::move(offsets), newReader](benchmark::State& state) {
    try {
      const std::unique_ptr<Reader> reader = newReader(job);
      reader->ReadAll({offsets.begin(), offsets.begin() + job.depth});  // warm up
      for (auto _ : state) reader->ReadAll(offsets);
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
    }
    const auto items =
        static_cast<double>(state.iterations()) * static_cast<double>(offsets.size());
    state.counters["items"] = benchmark::Counter(items);
    state.counters["reads/s"] = benchmark::Counter(items, benchmark::Counter::kIsRate);
  };
  benchmark::RegisterBenchmark(name.c_str(), run)
      ->UseRealTime()
      ->MeasureProcessCPUTime()
      ->Unit(benchmark::kMillisecond);
}

}  // namespace

void RegisterUncachedReads(const char* kind, const TestFile& file) {
  constexpr std::uint64_t kKiB = 1024;
  const std::string prefix = std::string(kind) + "/";
  const std::string& name = file.GetName();

  const Job small{name, 4 * kKiB, 61};
  const auto random = RandomOffsets(file.GetSize(), small.blockBytes, 50000);
  Register(prefix + "random 4 KiB, 61 in flight/orvane", small, random, NewOrvaneReader);
  Register(prefix + "random 4 KiB, 61 in flight/ring", small, random, NewRingReader);

  const Job single{name, 4 * kKiB, 1};
  const auto few = RandomOffsets(file.GetSize(), single.blockBytes, 5000);
  Register(prefix + "random 4 KiB, one at a time/orvane", single, few, NewOrvaneSyncReader);
  Register(prefix + "random 4 KiB, one at a time/ring", single, few, NewRingReader);
  Register(prefix + "random 4 KiB, one at a time/pread", single, few, NewPreadReader);

  const Job large{name, 1024 * kKiB, 8};
  const auto all = SequentialOffsets(file.GetSize(), large.blockBytes);
  Register(prefix + "sequential 1 MiB, 8 in flight/orvane", large, all, NewOrvaneReader);
  Register(prefix + "sequential 1 MiB, 8 in flight/ring", large, all, NewRingReader);
  Register(prefix + "sequential 1 MiB, 8 in flight/pread", large, all, NewPreadReader);
}

}  // namespace bench
