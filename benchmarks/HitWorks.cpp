// Reads of what is in memory, each peer in its own way.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "BenchHost.h"
#include "OrvaneRunners.h"
#include "Peers.h"
#include "Sizes.h"
#include "Suite.h"
#include "TestFile.h"
#include "ThreadTeam.h"

namespace bench {
namespace {

constexpr const char* kUs = "orvane";
constexpr const char* kSmallBlocks = "orvane, blocks of 4 KiB";

CachedJob Loaded(const Job& job, std::uint64_t workingSet, std::uint64_t blockBytes) {
  return {job, {blockBytes, static_cast<std::size_t>(workingSet / blockBytes)}, workingSet};
}

struct HitAims {
  std::uint64_t readBytes;
  double pageCache;  // time against a read of the page cache
  double mapping;    // and against a copy out of a mapping
};

Work HitWork(const TestFile& file, std::uint64_t workingSet, const HitAims& aims) {
  Job job{file.GetName(), aims.readBytes};
  job.offsets = ShuffledOffsets(workingSet, aims.readBytes);
  Work work{
      "hits of " + SizeText(aims.readBytes) + " in " + SizeText(workingSet) + ", one at a time",
      "reads",
      job.offsets.size(),
      {},
      {}};
  const CachedJob ours = Loaded(job, workingSet, 64 * kKiB);
  work.contenders.push_back({kUs, [ours] { return NewOrvaneSync(ours); }});
  const CachedJob small = Loaded(job, workingSet, 4 * kKiB);
  work.contenders.push_back({kSmallBlocks, [small] { return NewOrvaneSync(small); }});
  const std::vector<Peer> peers = GetPeers(PeerKind::kBufferedSync);
  for (std::size_t k = 0; k < peers.size(); ++k) {
    work.contenders.push_back({peers[k].name, [job, make = peers[k].make] { return make(job); }});
    work.aims.push_back({"P6",
                         kUs,
                         {peers[k].name},
                         Measure::kTime,
                         false,
                         k == 0 ? aims.pageCache : aims.mapping});
  }
  return work;
}

Work AsyncHitWork(const TestFile& file, std::uint64_t workingSet) {
  Job job{file.GetName(), 4 * kKiB, 61};
  job.offsets = ShuffledOffsets(workingSet, job.itemBytes);
  Work work{"hits of 4 KiB in " + SizeText(workingSet) + ", 61 in flight",
            "reads",
            job.offsets.size(),
            {},
            {}};
  const CachedJob ours = Loaded(job, workingSet, 64 * kKiB);
  work.contenders.push_back({kUs, [ours] { return NewOrvaneAsync(ours); }});
  for (const Peer& peer : GetPeers(PeerKind::kBufferedAsync)) {
    work.contenders.push_back({peer.name, [job, make = peer.make] { return make(job); }});
    work.aims.push_back({"P9", kUs, {peer.name}, Measure::kRate, true, 1.0});
  }
  return work;
}

// The cache holds all of the working set, or half of it.
Work BlockCacheWork(const TestFile& file, std::uint64_t blockBytes, bool half) {
  constexpr std::size_t kPassItems = 4096;
  constexpr std::size_t kPasses = 64;
  const std::uint64_t workingSet = 128 * kMiB;
  const std::uint64_t cacheBytes = half ? workingSet / 2 : workingSet;
  Job job{file.GetName(), blockBytes};
  // A pass that began anew would find what it read the last time. So the offsets go on from pass
  // to pass, and so long that those caches gain nothing that keep what was hit before: by the time
  // they are over, all blocks have come up about as often.
  job.offsets = half ? RandomOffsets(workingSet, blockBytes, kPasses * kPassItems)
                     : ShuffledOffsets(workingSet, blockBytes);
  CachedJob ours = Loaded(job, cacheBytes, blockBytes);
  if (half) ours.passItems = kPassItems;
  Work work{"blocks of " + SizeText(blockBytes) + (half ? ", half of them hits" : ", all hits") +
                ", one at a time",
            "reads",
            ours.GetOffsetsOfPass(0).size(),
            {},
            {}};
  work.contenders.push_back({kUs, [ours] { return NewOrvaneSync(ours); }});
  // Those that spread blocks over parts of their own need more than the blocks take to hold them
  // all.
  CachedJob theirs = ours;
  if (!half) theirs.cache.blocks += theirs.cache.blocks / 2;
  for (const BlockCachePeer& peer : GetBlockCachePeers()) {
    work.contenders.push_back({peer.name, [theirs, make = peer.make] { return make(theirs); }});
    work.aims.push_back({"P7", kUs, {peer.name}, Measure::kRate, true, 1.0});
  }
  return work;
}

// What the memory of the machine gives to several threads: the same copies and nothing else.
class CopyRunner : public Runner {
 public:
  CopyRunner(std::uint64_t workingSet, const Job& job, unsigned threads)
      : job_(job),
        threads_(threads),
        memory_(workingSet, 1),
        targets_(job.itemBytes, threads),
        team_(threads, [this](unsigned thread) { CopyShare(thread); }) {}

  void Pass(LatencyHistogram*) override { team_.Pass(); }

 private:
  void CopyShare(unsigned thread) {
    const std::size_t count = job_.offsets.size();
    for (std::size_t k = count * thread / threads_; k < count * (thread + 1) / threads_; ++k) {
      std::memcpy(targets_[thread], memory_[0] + job_.offsets[k], job_.itemBytes);
      std::atomic_signal_fence(std::memory_order_seq_cst);
    }
  }

  const Job job_;
  const unsigned threads_;
  const AlignedBlocks memory_;
  const AlignedBlocks targets_;
  ThreadTeam team_;  // last: it uses the others
};

Work ThreadWork(const TestFile& file, std::uint64_t readBytes) {
  const std::uint64_t workingSet = 64 * kMiB;
  Job job{file.GetName(), readBytes};
  job.offsets = ShuffledOffsets(workingSet, readBytes);
  const CachedJob ours = Loaded(job, workingSet, 64 * kKiB);
  Work work{"hits of " + SizeText(readBytes) + " by several threads",
            "reads",
            job.offsets.size(),
            {},
            {}};
  const auto name = [](unsigned threads) {
    return std::to_string(threads) + (threads == 1 ? " thread" : " threads");
  };
  for (unsigned threads = 1; threads <= std::max(2U, std::thread::hardware_concurrency());
       threads *= 2) {
    work.contenders.push_back({name(threads),
                               [ours, threads] { return NewOrvaneSync(ours, threads); },
                               static_cast<double>(threads)});
    work.contenders.push_back({"memcpy, " + name(threads), [job, workingSet, threads] {
                                 return std::make_unique<CopyRunner>(workingSet, job, threads);
                               }});
    if (threads == 1) continue;
    work.aims.push_back({"P8",
                         name(threads),
                         {name(1)},
                         Measure::kRate,
                         true,
                         threads == 2 ? 1.85 : 0.8 * threads});
  }
  return work;
}

}  // namespace

void AddHitWorks(Suite* suite, const TestFile& file) {
  for (const std::uint64_t workingSet : {16 * kMiB, 256 * kMiB}) {
    for (const HitAims& aims :
         {HitAims{4 * kKiB, 0.8, 1.6}, HitAims{64 * kKiB, 0.85, 1.1}, HitAims{kMiB, 0.9, 1.05}}) {
      suite->works.push_back(HitWork(file, workingSet, aims));
    }
    suite->works.push_back(AsyncHitWork(file, workingSet));
  }
}

void AddBlockCacheWorks(Suite* suite, const TestFile& file) {
  for (const std::uint64_t blockBytes : {4 * kKiB, 64 * kKiB}) {
    suite->works.push_back(BlockCacheWork(file, blockBytes, /*half=*/false));
    suite->works.push_back(BlockCacheWork(file, blockBytes, /*half=*/true));
  }
}

void AddThreadWorks(Suite* suite, const TestFile& file) {
  suite->works.push_back(ThreadWork(file, 4 * kKiB));
  suite->works.push_back(ThreadWork(file, 64 * kKiB));
}

}  // namespace bench
