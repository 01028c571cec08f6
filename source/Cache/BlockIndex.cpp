#include "Cache/BlockIndex.h"

#include <bit>

#include "Cache/CacheBlock.h"

namespace Orvane {

void BlockIndex::Reserve(std::size_t blocks) {
  buckets_.assign(std::bit_ceil(blocks + blocks / 2 + 1), nullptr);
}

void BlockIndex::Insert(CacheBlock* block, std::uint32_t sourceKey, std::uint64_t sourceOffset) {
  CacheBlock*& bucket = buckets_[BucketOf(sourceKey, sourceOffset)];
  block->indexLink_ = {bucket, sourceKey, sourceOffset, /*isLinked=*/true, /*isShort=*/false};
  bucket = block;
}

void BlockIndex::Remove(CacheBlock* block) {
  Link& link = block->indexLink_;
  if (!link.isLinked) return;
  CacheBlock** place = &buckets_[BucketOf(link.sourceKey, link.sourceOffset)];
  while (*place != block) place = &(*place)->indexLink_.next;
  *place = link.next;
  link = Link();
}

CacheBlock* BlockIndex::Find(std::uint32_t sourceKey, std::uint64_t sourceOffset) const {
  if (buckets_.empty()) return nullptr;
  CacheBlock* block = buckets_[BucketOf(sourceKey, sourceOffset)];
  while (block && (block->indexLink_.sourceOffset != sourceOffset ||
                   block->indexLink_.sourceKey != sourceKey)) {
    block = block->indexLink_.next;
  }
  return block;
}

// Offsets are multiples of the block size: their low bits say nothing, so all bits are mixed. Keys
// are spread first: they count up, as offsets do, and must not cancel out against them.
std::size_t BlockIndex::BucketOf(std::uint32_t sourceKey, std::uint64_t sourceOffset) const {
  std::uint64_t hash = sourceOffset ^ (sourceKey * std::uint64_t{0xD6E8FEB86659FD93});
  hash ^= hash >> 32;
  hash *= 0x9E3779B97F4A7C15;
  hash ^= hash >> 29;
  hash *= 0xBF58476D1CE4E5B9;
  hash ^= hash >> 32;
  return static_cast<std::size_t>(hash) & (buckets_.size() - 1);
}

}  // namespace Orvane
