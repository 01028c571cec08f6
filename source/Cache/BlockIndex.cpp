#include "Cache/BlockIndex.h"

#include <algorithm>
#include <bit>

#include "Cache/CacheBlock.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"

namespace Orvane {
namespace {

// Neighbours whose buckets lie together: those of 64 blocks fill eight cache lines of one page.
constexpr unsigned kNeighbourBits = 6;
constexpr std::uint64_t kNeighbourMask = (1 << kNeighbourBits) - 1;
constexpr std::size_t kBucketsPerLine = 8;
// So few threads look for a block at once that two of them seldom meet.
constexpr std::size_t kMostLocks = 256;

}  // namespace

void BlockIndex::Reserve(std::size_t blocks, std::uint64_t blockSize) {
  const std::size_t count = std::bit_ceil(blocks + blocks / 2 + 1);
  locks_.clear();
  locks_.resize(std::clamp<std::size_t>(count / kBucketsPerLine, 1, kMostLocks));
  for (auto& lock : locks_) lock.reset(NewCritSec(LockClass::kBlockIndex));
  buckets_.assign(count, nullptr);
  offsetShift_ = static_cast<unsigned>(std::bit_width(blockSize | 1)) - 1;
}

void BlockIndex::Insert(CacheBlock* block, std::uint32_t sourceKey, std::uint64_t sourceOffset) {
  const std::size_t bucket = BucketOf(sourceKey, sourceOffset);
  CritSecLock lock(LockOf(bucket));
  block->sourceKey_ = sourceKey;
  block->sourceOffset_ = sourceOffset;
  block->indexNext_ = buckets_[bucket];
  block->isIndexed_ = true;
  buckets_[bucket] = block;
}

void BlockIndex::Remove(CacheBlock* block) {
  if (!block->isIndexed_) return;
  const std::size_t bucket = BucketOf(block->sourceKey_, block->sourceOffset_);
  CritSecLock lock(LockOf(bucket));
  CacheBlock** place = &buckets_[bucket];
  while (*place != block) place = &(*place)->indexNext_;
  *place = block->indexNext_;
  block->indexNext_ = nullptr;
  block->isIndexed_ = false;
}

CacheBlock* BlockIndex::Find(std::uint32_t sourceKey, std::uint64_t sourceOffset) const {
  if (buckets_.empty()) return nullptr;
  const std::size_t bucket = BucketOf(sourceKey, sourceOffset);
  CritSecLock lock(LockOf(bucket));
  return FindIn(bucket, sourceKey, sourceOffset);
}

CacheBlock* BlockIndex::FindWithListLock(std::uint32_t sourceKey,
                                         std::uint64_t sourceOffset) const {
  if (buckets_.empty()) return nullptr;
  return FindIn(BucketOf(sourceKey, sourceOffset), sourceKey, sourceOffset);
}

CacheBlock* BlockIndex::FindIn(std::size_t bucket, std::uint32_t sourceKey,
                               std::uint64_t sourceOffset) const {
  CacheBlock* block = buckets_[bucket];
  while (block && (block->sourceOffset_ != sourceOffset || block->sourceKey_ != sourceKey)) {
    block = block->indexNext_;
  }
  return block;
}

MTCritSec* BlockIndex::LockOf(std::size_t bucket) const {
  return locks_[(bucket / kBucketsPerLine) & (locks_.size() - 1)].get();
}

// Keys are spread first: they count up, as offsets do, and must not cancel out against them. All
// bits of what is no neighbour are mixed.
std::size_t BlockIndex::BucketOf(std::uint32_t sourceKey, std::uint64_t sourceOffset) const {
  const std::uint64_t number = sourceOffset >> offsetShift_;
  std::uint64_t hash = (number >> kNeighbourBits) ^ (sourceKey * std::uint64_t{0xD6E8FEB86659FD93});
  hash ^= hash >> 32;
  hash *= 0x9E3779B97F4A7C15;
  hash ^= hash >> 29;
  hash *= 0xBF58476D1CE4E5B9;
  hash ^= hash >> 32;
  return static_cast<std::size_t>(hash ^ (number & kNeighbourMask)) & (buckets_.size() - 1);
}

}  // namespace Orvane
