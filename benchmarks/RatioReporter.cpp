#include "RatioReporter.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

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
    if (!run.counters.count("items")) {
      for (const auto& [counter, value] : run.counters) figures_[name][counter].push_back(value);
      continue;
    }
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
  for (const auto& [name, figures] : figures_) {
    std::printf("\n%s\n", name.c_str());
    for (const auto& [figure, values] : figures) {
      std::printf("  %-54s %12.3f\n", figure.c_str(), Median(values));
    }
  }
}

void RatioReporter::PrintWork(const std::string& name, const Work& work) {
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
  const bool hasOwn = medians.count("orvane") > 0;
  std::printf("\n%-56s %12s %14s %10s %12s\n", name.c_str(), "items/s", "us CPU/item",
              hasOwn ? "ratio" : "growth", hasOwn ? "CPU ratio" : "CPU growth");
  if (hasOwn) {
    PrintComparison(medians);
  } else {
    PrintGrowth(work, medians);
  }
}

void RatioReporter::PrintComparison(const std::map<std::string, Sample>& medians) {
  const Sample own = medians.at("orvane");
  for (const auto& [peer, median] : medians) {
    std::printf("  %-54s %12.0f %14.3f", peer.c_str(), median.ratePerSecond,
                median.processorSecondsPerItem * 1e6);
    if (peer == "orvane") {
      std::printf("\n");
    } else {
      std::printf(" %10.3f %12.3f\n", own.ratePerSecond / median.ratePerSecond,
                  own.processorSecondsPerItem / median.processorSecondsPerItem);
    }
  }
}

void RatioReporter::PrintGrowth(const Work& work, const std::map<std::string, Sample>& medians) {
  // The order in which they ran is random; "1024 blocks" goes before "16384 blocks".
  std::vector<std::string> peers = work.peers;
  std::sort(peers.begin(), peers.end(), [](const std::string& a, const std::string& b) {
    return std::strtoull(a.c_str(), nullptr, 10) < std::strtoull(b.c_str(), nullptr, 10);
  });
  const Sample first = medians.at(peers.front());
  for (const std::string& peer : peers) {
    const Sample& median = medians.at(peer);
    std::printf("  %-54s %12.0f %14.3f %10.3f %12.3f\n", peer.c_str(), median.ratePerSecond,
                median.processorSecondsPerItem * 1e6, first.ratePerSecond / median.ratePerSecond,
                median.processorSecondsPerItem / first.processorSecondsPerItem);
  }
}

}  // namespace bench
