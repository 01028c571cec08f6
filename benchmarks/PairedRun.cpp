#include "PairedRun.h"

#include <algorithm>
#include <stdexcept>

#include "Allocations.h"
#include "BenchHost.h"

namespace bench {
namespace {

Sample TakeSample(Runner* runner, const Work& work, double atLeastSeconds) {
  Sample sample{};
  do {
    runner->Prepare();
    const double processorBefore = ProcessorSeconds();
    const Clock::time_point start = Clock::now();
    runner->Pass(/*latencies=*/nullptr);
    sample.seconds += std::chrono::duration<double>(Clock::now() - start).count();
    sample.processorSeconds += ProcessorSeconds() - processorBefore;
    sample.items += static_cast<double>(work.items);
  } while (sample.seconds < atLeastSeconds);
  return sample;
}

// Runs `action`; what it throws becomes the contender's error.
template <typename Action>
void Attempt(ContenderResult* result, Action action) {
  if (!result->error.empty()) return;
  try {
    action();
  } catch (const std::exception& error) {
    result->error = error.what();
  }
}

void TakeSamples(const Work& work, const RunOptions& options, WorkResult* results) {
  const std::size_t count = work.contenders.size();
  std::vector<std::unique_ptr<Runner>> runners(count);
  for (std::size_t k = 0; k < count; ++k) {
    Attempt(&results->contenders[k], [&] {
      runners[k] = work.contenders[k].make();
      runners[k]->Prepare();
      runners[k]->Pass(nullptr);
    });
  }
  for (unsigned round = 0; round < options.rounds; ++round) {
    for (std::size_t turn = 0; turn < count; ++turn) {
      // Forwards and backwards, so that nobody always follows the same one.
      const std::size_t k = round % 2 == 0 ? turn : count - 1 - turn;
      ContenderResult* const result = &results->contenders[k];
      Attempt(result, [&] {
        result->samples.push_back(TakeSample(runners[k].get(), work, options.secondsPerSample));
      });
    }
  }
}

// Alone in memory.
void LookClosely(const Contender& contender, const Work& work, ContenderResult* result) {
  ResetPeakMemory();
  const std::uint64_t before = GetMemory();
  const std::unique_ptr<Runner> runner = contender.make();
  runner->Prepare();
  runner->Pass(nullptr);
  result->latencies = std::make_unique<LatencyHistogram>();
  runner->Prepare();
  const AllocationCount allocations;
  runner->Pass(result->latencies.get());
  result->allocationsPerItem =
      static_cast<double>(allocations.Get()) / static_cast<double>(work.items);
  const std::uint64_t peak = GetPeakMemory();
  result->peakBytes = peak > before ? peak - before : 0;
}

double GetMeasure(const Sample& sample, Measure measure) {
  switch (measure) {
    case Measure::kRate:
      return sample.items / sample.seconds;
    case Measure::kTime:
      return sample.seconds / sample.items;
    default:
      return sample.processorSeconds / sample.items;
  }
}

const ContenderResult* Find(const WorkResult& result, const std::string& name) {
  for (const ContenderResult& contender : result.contenders) {
    if (contender.name == name && contender.error.empty()) return &contender;
  }
  return nullptr;
}

}  // namespace

Spread GetSpread(std::vector<double> values) {
  if (values.empty()) return {};
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  const double median =
      values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
  return {median, values.front(), values.back()};
}

WorkResult RunWork(const Work& work, const RunOptions& options) {
  WorkResult results{&work, {}};
  for (const Contender& contender : work.contenders) {
    ContenderResult result;
    result.name = contender.name;
    result.place = contender.place;
    results.contenders.push_back(std::move(result));
  }
  TakeSamples(work, options, &results);
  for (std::size_t k = 0; k < work.contenders.size(); ++k) {
    Attempt(&results.contenders[k],
            [&] { LookClosely(work.contenders[k], work, &results.contenders[k]); });
  }
  return results;
}

bool GetRatio(const WorkResult& result, const Aim& aim, Spread* ratio) {
  const ContenderResult* const ours = Find(result, aim.contender);
  std::vector<const ContenderResult*> others;
  for (const std::string& name : aim.against) others.push_back(Find(result, name));
  if (!ours || std::find(others.begin(), others.end(), nullptr) != others.end()) return false;
  std::vector<double> ratios;
  for (std::size_t round = 0; round < ours->samples.size(); ++round) {
    double largest = 0;
    for (const ContenderResult* const other : others) {
      largest = std::max(largest, GetMeasure(other->samples[round], aim.measure));
    }
    if (largest > 0) ratios.push_back(GetMeasure(ours->samples[round], aim.measure) / largest);
  }
  *ratio = GetSpread(std::move(ratios));
  return true;
}

bool IsMet(bool atLeast, double bound, double value) {
  return atLeast ? value >= bound : value <= bound;
}

}  // namespace bench
