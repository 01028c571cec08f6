#pragma once

#include <cstdint>

namespace Orvane {

class Buffer;
class BufferList;
class CacheBlockList;
class CacheStatistics;

// Reads that find every block in memory, copied on the thread that asks: nothing is queued and
// nothing allocated. Locks, stamps and counts are those of any other hit.
class ResidentReader {
 public:
  ResidentReader(CacheBlockList* blocks, CacheStatistics* statistics);

  // Into the buffer, or into the list if that is null. False unless all `size` bytes were copied.
  // The due time (0: now) becomes the stamp of the blocks.
  bool Read(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size, Buffer* buffer,
            BufferList* list, std::uint32_t dueTime);

 private:
  bool ReadSmall(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size, Buffer* buffer,
                 BufferList* list, std::uint32_t dueTime);

  CacheBlockList* const blocks_;
  CacheStatistics* const statistics_;
};

}  // namespace Orvane
