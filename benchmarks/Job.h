// What every peer does: transfers of one size at given places of a file, so many in flight.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "Runner.h"

namespace bench {

struct Job {
  std::string file;
  std::uint64_t itemBytes = 0;
  unsigned depth = 1;                    // transfers in flight
  std::vector<std::uint64_t> offsets{};  // bytes, one per item, in this order
  unsigned parts = 1;                    // equal pieces of an item that do not adjoin in memory
  bool write = false;                    // else a read
};

struct CacheShape {
  std::uint64_t blockBytes = 0;
  std::size_t blocks = 0;

  std::uint64_t Bytes() const { return blockBytes * blocks; }
};

// With a cache to read through, of its own for each runner.
struct CachedJob : Job {
  CacheShape cache{};             // no blocks: none
  std::uint64_t loadedBytes = 0;  // of the file, from its start; in the cache before the first pass
  // Offsets that a pass takes. The next pass takes those behind them, and the first follow the
  // last. 0: all. Only for those who do one item after another.
  // REQUIRES: divides the number of offsets.
  std::size_t passItems = 0;

  std::span<const std::uint64_t> GetOffsetsOfPass(std::size_t pass) const;
};

// Offsets of whole items: `count` random ones, the same for every peer; each once, in random order;
// all in order.
std::vector<std::uint64_t> RandomOffsets(std::uint64_t fileBytes, std::uint64_t itemBytes,
                                         std::size_t count);
std::vector<std::uint64_t> ShuffledOffsets(std::uint64_t fileBytes, std::uint64_t itemBytes);
std::vector<std::uint64_t> SequentialOffsets(std::uint64_t fileBytes, std::uint64_t itemBytes);

}  // namespace bench
