#include "Cache/BlockIndex.h"

#include <bit>

#include "Cache/CacheBlock.h"

namespace Orvane {
namespace {

// Neighbours whose buckets lie together: those of 64 blocks fill eight cache lines of one page.
constexpr unsigned kNeighbourBits = 6;
constexpr std::uint64_t kNeighbourMask = (1 << kNeighbourBits) - 1;

}  // namespace

void BlockIndex::Reserve(std::size_t blocks, std::uint64_t blockSize) {
  buckets_.assign(std::bit_ceil(blocks + blocks / 2 + 1), nullptr);
  offsetShift_ = static_cast<unsigned>(std::bit_width(blockSize | 1)) - 1;
}

void BlockIndex::Insert(CacheBlock* block, std::uint32_t sourceKey, std::uint64_t sourceOffset) {
  CacheBlock*& bucket = buckets_[BucketOf(sourceKey, sourceOffset)];
  block->sourceKey_ = sourceKey;
  block->sourceOffset_ = sourceOffset;
  block->indexNext_ = bucket;
  block->isIndexed_ = true;
  bucket = block;
}

void BlockIndex::Remove(CacheBlock* block) {
  if (!block->isIndexed_) return;
  CacheBlock** place = &buckets_[BucketOf(block->sourceKey_, block->sourceOffset_)];
  while (*place != block) place = &(*place)->indexNext_;
  *place = block->indexNext_;
  block->indexNext_ = nullptr;
  block->isIndexed_ = false;
}

CacheBlock* BlockIndex::Find(std::uint32_t sourceKey, std::uint64_t sourceOffset) const {
  if (buckets_.empty()) return nullptr;
  CacheBlock* block = buckets_[BucketOf(sourceKey, sourceOffset)];
  while (block && (block->sourceOffset_ != sourceOffset || block->sourceKey_ != sourceKey)) {
    block = block->indexNext_;
  }
  return block;
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
