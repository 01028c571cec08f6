// A file from its start to its end, with what is needed next read ahead.
#include <string>

#include "OrvaneRunners.h"
#include "Peers.h"
#include "Sizes.h"
#include "Suite.h"
#include "TestFile.h"

namespace bench {
namespace {

constexpr const char* kUs = "orvane";
constexpr const char* kUncached = "orvane uncached, 16 in flight";
constexpr const char* kWorkAlone = "the computing alone";

class ComputeRunner : public Runner {
 public:
  ComputeRunner(std::size_t items, double micros) : items_(items), micros_(micros) {}

  void Pass(LatencyHistogram*) override {
    for (std::size_t k = 0; k < items_; ++k) Compute(micros_);
  }

 private:
  const std::size_t items_;
  const double micros_;
};

ScanJob Scan(const Job& job, std::uint64_t blockBytes) {
  ScanJob scan{};
  static_cast<Job&>(scan) = job;
  scan.cache = {blockBytes, static_cast<std::size_t>(96 * kMiB / blockBytes)};
  scan.windowBytes = 32 * kMiB;
  return scan;
}

Contender Uncached(const Job& job) {
  CachedJob uncached{job};
  uncached.depth = 16;
  return {kUncached, [uncached] { return NewOrvaneAsync(uncached); }};
}

Work ScanWork(const Job& job, std::uint64_t blockBytes) {
  Work work{"cold scan, 1 MiB at a time, blocks of " + SizeText(blockBytes),
            "reads",
            job.offsets.size(),
            {},
            {}};
  const ScanJob scan = Scan(job, blockBytes);
  work.contenders.push_back({kUs, [scan] { return NewOrvaneScan(scan); }});
  work.contenders.push_back(Uncached(job));
  work.aims.push_back({"P10", kUs, {kUncached}, Measure::kRate, true, 0.97});
  for (const Peer& peer : GetPeers(PeerKind::kColdScan)) {
    work.contenders.push_back({peer.name, [job, make = peer.make] { return make(job); }});
    work.aims.push_back({"P10", kUs, {peer.name}, Measure::kRate, true, 1.0});
  }
  return work;
}

Work ConsumerWork(const Job& job, std::uint64_t blockBytes) {
  static constexpr double kMicrosPerItem = 300;
  Work work{"consumer that computes 300 us per MiB, blocks of " + SizeText(blockBytes),
            "reads",
            job.offsets.size(),
            {},
            {}};
  ScanJob scan = Scan(job, blockBytes);
  scan.microsPerItem = kMicrosPerItem;
  work.contenders.push_back({kUs, [scan] { return NewOrvaneScan(scan); }});
  work.contenders.push_back(Uncached(job));
  const std::size_t items = job.offsets.size();
  work.contenders.push_back(
      {kWorkAlone, [items] { return std::make_unique<ComputeRunner>(items, kMicrosPerItem); }});
  work.aims.push_back({"P11", kUs, {kUncached, kWorkAlone}, Measure::kTime, false, 1.05});
  return work;
}

}  // namespace

void AddScanWorks(Suite* suite, const TestFile& file) {
  Job job{file.GetName(), kMiB};
  job.offsets = SequentialOffsets(file.GetSize(), kMiB);
  for (const std::uint64_t blockBytes : {kMiB, 64 * kKiB}) {
    suite->works.push_back(ScanWork(job, blockBytes));
  }
  suite->works.push_back(ConsumerWork(job, kMiB));
}

}  // namespace bench
