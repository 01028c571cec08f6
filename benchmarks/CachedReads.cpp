#include "CachedReads.h"

#include <algorithm>
#include <string>
#include <vector>

#include "Reader.h"
#include "Registration.h"

namespace bench {
namespace {

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1024 * kKiB;
// What one iteration of a benchmark of hits copies.
constexpr std::uint64_t kBytesPerIteration = 64 * kMiB;

std::string SizeText(std::uint64_t bytes) {
  return bytes % kMiB == 0 ? std::to_string(bytes / kMiB) + " MiB"
                           : std::to_string(bytes / kKiB) + " KiB";
}

CacheShape Holding(std::uint64_t bytes, std::uint64_t blockBytes) {
  return {blockBytes, static_cast<std::size_t>(bytes / blockBytes)};
}

// All of `workingSet` is in memory, in each peer's way.
void RegisterHits(const std::string& prefix, const TestFile& file, std::uint64_t workingSet,
                  std::uint64_t readBytes) {
  const std::string name =
      prefix + "hits " + SizeText(readBytes) + ", one at a time, of " + SizeText(workingSet) + "/";
  const auto offsets = RandomOffsets(workingSet, readBytes, kBytesPerIteration / readBytes);
  const auto all = SequentialOffsets(workingSet, readBytes);
  Job job{file.GetName(), readBytes, 1, Holding(workingSet, 64 * kKiB)};
  RegisterReads(name + "orvane", job, offsets, NewOrvaneSyncReader, all);
  job.cache = Holding(workingSet, 4 * kKiB);
  RegisterReads(name + "orvane, blocks of 4 KiB", job, offsets, NewOrvaneSyncReader, all);
  job.throughPageCache = true;
  RegisterReads(name + "pread", job, offsets, NewPreadReader, all);
  RegisterReads(name + "memcpy from mmap", job, offsets, NewMappingReader, all);
}

void RegisterAsyncHits(const std::string& prefix, const TestFile& file, std::uint64_t workingSet) {
  const std::string name = prefix + "hits 4 KiB, 61 in flight, of " + SizeText(workingSet) + "/";
  const auto offsets = RandomOffsets(workingSet, 4 * kKiB, 16384);
  const auto all = SequentialOffsets(workingSet, 4 * kKiB);
  Job job{file.GetName(), 4 * kKiB, 61, Holding(workingSet, 64 * kKiB)};
  RegisterReads(name + "orvane", job, offsets, NewOrvaneReader, all);
  job.throughPageCache = true;
  RegisterReads(name + "buffered ring", job, offsets, NewRingReader, all);
}

// The cache holds one part in 256 of the file.
void RegisterMisses(const std::string& prefix, const TestFile& file, std::uint64_t readBytes,
                    unsigned depth) {
  const std::string name = prefix + "misses " + SizeText(readBytes) + ", " +
                           (depth == 1 ? "one at a time" : std::to_string(depth) + " in flight");
  const auto offsets = RandomOffsets(file.GetSize(), readBytes, depth == 1 ? 2000 : 10000);
  Job job{file.GetName(), readBytes, depth};
  const auto reader = depth == 1 ? NewOrvaneSyncReader : NewOrvaneReader;
  RegisterReads(name + "/uncached", job, offsets, reader);
  // Room for all that is in flight.
  const std::uint64_t bytes = std::max(file.GetSize() / 256, 2 * depth * readBytes);
  job.cache = Holding(bytes, readBytes);
  RegisterReads(name + "/orvane", job, offsets, reader);
}

void RegisterScan(const std::string& prefix, const TestFile& file, std::uint64_t cacheBlock) {
  const std::string name = prefix + "cold scan, 1 MiB at a time, blocks of " + SizeText(cacheBlock);
  const auto offsets = SequentialOffsets(file.GetSize(), kMiB);
  Job job{file.GetName(), kMiB, 16};
  RegisterReads(name + "/uncached, 16 in flight", job, offsets, NewOrvaneReader);
  RegisterReads(name + "/cold pread", {file.GetName(), kMiB, 1, {}, /*throughPageCache=*/true},
                offsets, NewColdPreadReader);
  job.depth = 1;
  job.preReadWindow = 32 * kMiB;
  job.cache = Holding(96 * kMiB, cacheBlock);
  // The warm-up uses every block once.
  const std::vector<std::uint64_t> warmUp(
      offsets.begin(), offsets.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(
                                             offsets.size(), 2 * job.cache.Bytes() / kMiB)));
  RegisterReads(name + "/orvane", job, offsets, NewScanReader, warmUp);
}

}  // namespace

void RegisterCachedReads(const char* kind, const TestFile& file) {
  const std::string prefix = std::string(kind) + "/";
  for (const std::uint64_t workingSet : {16 * kMiB, 256 * kMiB}) {
    if (file.GetSize() < workingSet) continue;
    for (const std::uint64_t readBytes : {4 * kKiB, 64 * kKiB, kMiB}) {
      RegisterHits(prefix, file, workingSet, readBytes);
    }
    RegisterAsyncHits(prefix, file, workingSet);
  }
  for (const std::uint64_t readBytes : {4 * kKiB, 64 * kKiB}) {
    RegisterMisses(prefix, file, readBytes, 61);
    RegisterMisses(prefix, file, readBytes, 1);
  }
  RegisterScan(prefix, file, kMiB);
  RegisterScan(prefix, file, 64 * kKiB);
}

}  // namespace bench
