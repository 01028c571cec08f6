#include "Registration.h"

#include <stdexcept>
#include <utility>

namespace bench {

void RegisterReads(const std::string& name, const Job& job, std::vector<std::uint64_t> offsets,
                   ReaderFactory newReader, std::vector<std::uint64_t> warmUp) {
  if (warmUp.empty()) warmUp.assign(offsets.begin(), offsets.begin() + job.depth);
  auto run = [job, offsets = std::move(offsets), newReader,
              warmUp = std::move(warmUp)](benchmark::State& state) {
    try {
      const std::unique_ptr<Reader> reader = newReader(job);
      reader->ReadAll(warmUp);
      for (auto _ : state) reader->ReadAll(offsets);
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
    }
    CountItems(&state, offsets.size(), "reads/s");
  };
  benchmark::RegisterBenchmark(name.c_str(), run)
      ->UseRealTime()
      ->MeasureProcessCPUTime()
      ->Unit(benchmark::kMillisecond);
}

void CountItems(benchmark::State* state, std::size_t itemsPerIteration, const char* rateName) {
  const auto items =
      static_cast<double>(state->iterations()) * static_cast<double>(itemsPerIteration);
  state->counters["items"] = benchmark::Counter(items);
  state->counters[rateName] = benchmark::Counter(items, benchmark::Counter::kIsRate);
}

}  // namespace bench
