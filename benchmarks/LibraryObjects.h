// What the runners of the library are made of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

#include "Orvane.h"
#include "OrvaneRunners.h"

namespace bench {

// Releases one reference; null does nothing.
void Drop(Orvane::SharedObject* object);

// A cache over memory of its own. The caller's reference. Throws std::bad_alloc if memory is short.
Orvane::Cache* NewCache(const CacheShape& shape);

// Opens the file, for reading or for writing too, through a cache of its own if the job has one,
// with what the job wants loaded. The caller's reference. Throws std::runtime_error.
Orvane::NativeFileSource* OpenSource(const CachedJob& job);

// One chunk of page memory, cut into blocks, as the peers have it too.
class Blocks {
 public:
  // Memory for `count` lists of `parts` equal buffers that together have `bytes`. Throws
  // std::bad_alloc if memory is short.
  Blocks(std::uint64_t bytes, std::size_t count, unsigned parts);
  ~Blocks();
  Blocks(const Blocks&) = delete;
  Blocks& operator=(const Blocks&) = delete;

  // Takes its buffers for good. They do not adjoin each other. The caller's reference.
  Orvane::BufferList* NewList();
  // The same with random content, for writing: what one has after another is what the peers write.
  Orvane::BufferList* NewFilledList();

 private:
  const unsigned parts_;
  Orvane::BufferFactoryPhysMem* const factory_;
  std::mt19937_64 content_;
};

}  // namespace bench
