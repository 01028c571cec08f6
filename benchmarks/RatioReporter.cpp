#include "RatioReporter.h"

#include <algorithm>
#include <cstdio>

namespace bench {
namespace {

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

}  // namespace

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
  ConsoleReporter::ReportRuns(runs);
  for (const Run& run : runs) {
    if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
    const std::string& name = run.run_name.function_name;
    const std::size_t slash = name.rfind('/');
    if (slash == std::string::npos) continue;
    const std::string workName = name.substr(0, slash);
    const std::string peer = name.substr(slash + 1);
    if (!works_.count(workName)) order_.push_back(workName);
    Work& work = works_[workName];
    if (!work.samples.count(peer)) work.peers.push_back(peer);
    const double items = run.counters.at("items");
    const double seconds = run.real_accumulated_time;
    work.samples[peer].push_back({items / seconds, run.cpu_accumulated_time / items});
  }
}

void RatioReporter::Finalize() {
  ConsoleReporter::Finalize();
  std::printf("\nMedians over the repetitions, orvane against each peer of the same run\n");
  for (const std::string& name : order_) PrintWork(name, works_.at(name));
}

void RatioReporter::PrintWork(const std::string& name, const Work& work) const {
  std::map<std::string, Sample> medians;
  for (const auto& [peer, samples] : work.samples) {
    std::vector<double> rates;
    std::vector<double> processor;
    for (const Sample& sample : samples) {
      rates.push_back(sample.ratePerSecond);
      processor.push_back(sample.processorSecondsPerItem);
    }
    medians[peer] = {Median(rates), Median(processor)};
  }
  if (!medians.count("orvane")) return;
  const Sample own = medians.at("orvane");
  std::printf("\n%-40s %12s %14s %10s %12s\n", name.c_str(), "reads/s", "us CPU/read", "ratio",
              "CPU ratio");
  for (const auto& [peer, median] : medians) {
    std::printf("  %-38s %12.0f %14.2f", peer.c_str(), median.ratePerSecond,
                median.processorSecondsPerItem * 1e6);
    if (peer == "orvane") {
      std::printf("\n");
    } else {
      std::printf(" %10.3f %12.3f\n", own.ratePerSecond / median.ratePerSecond,
                  own.processorSecondsPerItem / median.processorSecondsPerItem);
    }
  }
}

}  // namespace bench
