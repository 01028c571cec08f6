// Finds the block that holds a place of a source.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "MTPrimitives.h"

namespace Orvane {

class CacheBlock;

// A hash table whose chains run through the blocks: made once for all of them, it never allocates
// again. A key is in it at most once.
//
// Changes are guarded by the lock of the block list. Find is not: each line of the table belongs to
// one of several locks of the index, which nothing else is entered under, so those who look for
// different places do not wait for each other.
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
  // The block at that place or null. Without the lock of the list it may be at another one as soon
  // as this returns.
  CacheBlock* Find(std::uint32_t sourceKey, std::uint64_t sourceOffset) const;
  // The same, for one who holds the lock of the list: nothing changes meanwhile.
  CacheBlock* FindWithListLock(std::uint32_t sourceKey, std::uint64_t sourceOffset) const;

 private:
  CacheBlock* FindIn(std::size_t bucket, std::uint32_t sourceKey, std::uint64_t sourceOffset) const;
  std::size_t BucketOf(std::uint32_t sourceKey, std::uint64_t sourceOffset) const;
  MTCritSec* LockOf(std::size_t bucket) const;

  // Powers of two of them.
  std::vector<CacheBlock*> buckets_;
  std::vector<std::unique_ptr<MTCritSec>> locks_;
  unsigned offsetShift_ = 0;
};

}  // namespace Orvane
