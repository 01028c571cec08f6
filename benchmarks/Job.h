// What every peer does: transfers of one size at given places of a file, so many in flight.
#pragma once

#include <cstdint>
#include <memory>
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

// The cache that the library reads through.
struct CacheShape {
  std::uint64_t blockBytes = 0;
  std::size_t blocks = 0;

  std::uint64_t Bytes() const { return blockBytes * blocks; }
};

// Offsets of whole items: `count` random ones, the same for every peer; each once, in random order;
// all in order.
std::vector<std::uint64_t> RandomOffsets(std::uint64_t fileBytes, std::uint64_t itemBytes,
                                         std::size_t count);
std::vector<std::uint64_t> ShuffledOffsets(std::uint64_t fileBytes, std::uint64_t itemBytes);
std::vector<std::uint64_t> SequentialOffsets(std::uint64_t fileBytes, std::uint64_t itemBytes);

}  // namespace bench
