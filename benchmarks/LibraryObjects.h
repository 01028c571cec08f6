// What the readers of the library are made of.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Orvane.h"
#include "Reader.h"

namespace bench {

// Releases one reference; null does nothing.
void Drop(Orvane::SharedObject* object);

// A cache over memory of its own. The caller's reference. Throws std::bad_alloc if memory is short.
Orvane::Cache* NewCache(const CacheShape& shape);

// Opens the file for reading, through a cache of its own if the job has one. The caller's
// reference.
Orvane::NativeFileSource* OpenSource(const Job& job);

// One chunk of page memory, cut into blocks, as the peers have it too.
class Blocks {
 public:
  // Throws std::bad_alloc if memory is short.
  Blocks(std::uint64_t blockBytes, std::size_t count);
  ~Blocks();
  Blocks(const Blocks&) = delete;
  Blocks& operator=(const Blocks&) = delete;

  // Takes a block for good. The caller's reference.
  Orvane::BufferList* NewListOfOne();

 private:
  Orvane::BufferFactoryPhysMem* const factory_;
};

}  // namespace bench
