// Finds the block that holds a place of a source.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Orvane {

class CacheBlock;

// A hash table whose chains run through the blocks: made once for all of them, it never allocates
// again. A key is in it at most once. Guarded by the lock of the block list.
//
// Places that follow each other share the lines of the table and are in no chain together: who
// reads a part of a large cache touches a part of its table.
class BlockIndex {
 public:
  // For so many blocks, at offsets that are multiples of so many bytes.
  void Reserve(std::size_t blocks, std::uint64_t blockSize);
  // The block is at that place from now on. REQUIRES: Find answers null for it, and the block is
  // not in the index.
  void Insert(CacheBlock* block, std::uint32_t sourceKey, std::uint64_t sourceOffset);
  // Does nothing for a block that is not in the index.
  void Remove(CacheBlock* block);
  CacheBlock* Find(std::uint32_t sourceKey, std::uint64_t sourceOffset) const;

 private:
  std::size_t BucketOf(std::uint32_t sourceKey, std::uint64_t sourceOffset) const;

  std::vector<CacheBlock*> buckets_;  // a power of two of them
  unsigned offsetShift_ = 0;
};

}  // namespace Orvane
