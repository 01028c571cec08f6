// Measures the contenders of a work in turns, so that a drift of the machine meets all of them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "LatencyHistogram.h"
#include "Suite.h"

namespace bench {

struct RunOptions {
  unsigned rounds = 7;
  double secondsPerSample = 0.25;  // at least; passes are repeated until they took so long
};

// Of one contender in one round.
struct Sample {
  double seconds;
  double processorSeconds;
  double items;
};

struct ContenderResult {
  std::string name;
  double place;
  std::vector<Sample> samples;  // by round
  // Of one more pass, which is not part of the samples.
  std::unique_ptr<LatencyHistogram> latencies;
  double allocationsPerItem = 0;
  std::uint64_t peakBytes = 0;  // beside what the process had before, with what making it took
  std::string error;            // why it did not run
};

struct WorkResult {
  const Work* work;
  std::vector<ContenderResult> contenders;
};

struct Spread {
  double median;
  double low;
  double high;
};

// All zero without values.
Spread GetSpread(std::vector<double> values);

WorkResult RunWork(const Work& work, const RunOptions& options);

// Over the rounds. False if one of those compared did not run, or is not on this host.
bool GetRatio(const WorkResult& result, const Aim& aim, Spread* ratio);
bool IsMet(bool atLeast, double bound, double value);

}  // namespace bench
