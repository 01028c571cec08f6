#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace bench {

// Prints as usual and, at the end, per work a table of the medians and the ratio of the library to
// each peer. Benchmarks are named WORK/PEER; the library's own is WORK/orvane. A work without it
// compares the library with itself: the cost of each peer is put in relation to the first one's.
// Of benchmarks that count no items the medians of their counters are printed.
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

  using Figures = std::map<std::string, std::vector<double>>;

  static void PrintWork(const std::string& name, const Work& work);
  static void PrintComparison(const std::map<std::string, Sample>& medians);
  static void PrintGrowth(const Work& work, const std::map<std::string, Sample>& medians);

  std::vector<std::string> order_;
  std::map<std::string, Work> works_;
  std::map<std::string, Figures> figures_;
};

}  // namespace bench
