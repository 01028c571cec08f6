// Files without a cache, against the host's own interface and two libraries.
#include <algorithm>

#include "OrvaneRunners.h"
#include "Peers.h"
#include "Sizes.h"
#include "Suite.h"
#include "TestFile.h"

namespace bench {
namespace {

constexpr const char* kUs = "orvane";
// What any library takes that has one thread for all files; a comparison, not a peer.
constexpr const char* kFloor = "pread on another thread";

Work AgainstPeers(const std::string& name, const std::string& unit, const Job& job,
                  const RunnerFactory& ours, PeerKind kind) {
  Work work{name, unit, job.offsets.size(), {}, {}};
  work.contenders.push_back({kUs, ours});
  for (const Peer& peer : GetPeers(kind)) {
    work.contenders.push_back({peer.name, [job, make = peer.make] { return make(job); }});
  }
  return work;
}

// Against the limit, which is the first of its kind, and ahead of the others.
void AddAims(Work* work, const std::string& id, double bound) {
  for (std::size_t k = 1; k < work->contenders.size(); ++k) {
    const std::string& peer = work->contenders[k].name;
    work->aims.push_back(
        {k == 1 ? id : "P17", kUs, {peer}, Measure::kRate, true, k == 1 ? bound : 1.0});
  }
}

Work AsyncWork(const std::string& name, const std::string& unit, const Job& job) {
  const CachedJob ours{job};
  return AgainstPeers(
      name, unit, job, [ours] { return NewOrvaneAsync(ours); }, PeerKind::kAsync);
}

}  // namespace

void AddUncachedWorks(Suite* suite, const std::string& kind, bool isDevice, const TestFile& file) {
  const std::string prefix = kind + ": ";
  Job job{file.GetName(), 4 * kKiB, 61};
  job.offsets = RandomOffsets(file.GetSize(), job.itemBytes, 20000);
  Work random = AsyncWork(prefix + "random 4 KiB reads, 61 in flight", "reads", job);
  AddAims(&random, isDevice ? "P1" : "P2", isDevice ? 0.97 : 0.75);
  if (isDevice && random.contenders.size() > 1) {
    random.aims.push_back(
        {"P1", kUs, {random.contenders[1].name}, Measure::kProcessor, false, 1.3});
  }
  suite->works.push_back(random);

  job.parts = 16;
  job.itemBytes = job.parts * 4 * kKiB;
  job.depth = 16;
  job.offsets = RandomOffsets(file.GetSize(), job.itemBytes, 4000);
  Work lists = AsyncWork(prefix + "random reads into lists of 16 separate pages, 16 in flight",
                         "lists", job);
  if (isDevice) AddAims(&lists, "P5", 0.97);
  suite->works.push_back(lists);

  job.parts = 1;
  job.itemBytes = kMiB;
  job.depth = 8;
  job.offsets = SequentialOffsets(file.GetSize(), job.itemBytes);
  Work reads = AsyncWork(prefix + "sequential 1 MiB reads, 8 in flight", "reads", job);
  job.write = true;
  Work writes = AsyncWork(prefix + "sequential 1 MiB writes, 8 in flight", "writes", job);
  if (isDevice) {
    AddAims(&reads, "P3", 0.99);
    AddAims(&writes, "P3", 0.99);
  }
  suite->works.push_back(reads);
  suite->works.push_back(writes);

  job = {file.GetName(), 4 * kKiB};
  job.offsets = RandomOffsets(file.GetSize(), job.itemBytes, 2000);
  const CachedJob single{job};
  Work sync = AgainstPeers(
      prefix + "random 4 KiB reads, one at a time", "reads", job,
      [single] { return NewOrvaneSync(single); }, PeerKind::kSync);
  for (std::size_t k = 1; isDevice && k < sync.contenders.size(); ++k) {
    const std::string& peer = sync.contenders[k].name;
    if (peer == kFloor) continue;
    sync.aims.push_back(
        {k == 1 ? "P4" : "P17", kUs, {peer}, Measure::kTime, false, k == 1 ? 1.12 : 1.0});
  }
  suite->works.push_back(sync);
}

}  // namespace bench
