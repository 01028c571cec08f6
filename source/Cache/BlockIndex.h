// Finds the block that holds a place of a source.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Orvane {

class CacheBlock;

// A hash table whose chains run through the blocks: made once for all of them, it never allocates
// again. A key is in it at most once. Guarded by the lock of the block list.
class BlockIndex {
 public:
  // Of a block: `next` is the chain's.
  struct Link {
    CacheBlock* next = nullptr;
    std::uint32_t sourceKey = 0;
    std::uint64_t sourceOffset = 0;
    bool isLinked = false;
    bool isShort = false;  // among the list's short blocks
  };

  void Reserve(std::size_t blocks);
  // REQUIRES: Find answers null for the key, and the block is not in the index.
  void Insert(CacheBlock* block, std::uint32_t sourceKey, std::uint64_t sourceOffset);
  // Does nothing for a block that is not in the index.
  void Remove(CacheBlock* block);
  CacheBlock* Find(std::uint32_t sourceKey, std::uint64_t sourceOffset) const;

 private:
  std::size_t BucketOf(std::uint32_t sourceKey, std::uint64_t sourceOffset) const;

  std::vector<CacheBlock*> buckets_;  // a power of two of them
};

}  // namespace Orvane
