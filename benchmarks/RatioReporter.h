#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace bench {

// Prints as usual and, at the end, per work a table of the medians and their ratio to the first
// peer named. Benchmarks are named WORK/PEER; the library's own is WORK/orvane.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override;
  void Finalize() override;

 private:
  struct Sample {
    double ratePerSecond;
    double processorSecondsPerItem;
  };
  struct Work {
    std::vector<std::string> peers;  // in order of registration
    std::map<std::string, std::vector<Sample>> samples;
  };

  void PrintWork(const std::string& name, const Work& work) const;

  std::vector<std::string> order_;
  std::map<std::string, Work> works_;
};

}  // namespace bench
