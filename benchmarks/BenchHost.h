// What the measurements take of the host beside the peers.
#pragma once

#include <cstdint>
#include <string>

namespace bench {

// Used by this process so far, by the host's accounting: user and kernel, all threads.
double ProcessorSeconds();

// Memory of the process in bytes: now, and the most since Reset. 0 where the host does not tell.
void ResetPeakMemory();
std::uint64_t GetMemory();
std::uint64_t GetPeakMemory();
// On the heap, as the allocator counts it.
std::uint64_t GetHeapBytes();

// "name of the processor, so many cores, kernel"; what a file system is called.
std::string DescribeMachine();
std::string DescribeFolder(const std::string& folder);
// A folder in memory, or an empty text where there is none.
std::string FindMemoryFolder();
// Makes the page cache forget the file, if the host can.
void DropFromPageCache(const std::string& name);
// Data and size are on the device.
void FlushToDevice(const std::string& name);

// Memory for blocks of equal size, in huge pages where the host has them; zeroed.
class AlignedBlocks {
 public:
  AlignedBlocks(std::uint64_t blockBytes, std::size_t blocks);
  ~AlignedBlocks();
  AlignedBlocks(const AlignedBlocks&) = delete;
  AlignedBlocks& operator=(const AlignedBlocks&) = delete;

  char* operator[](std::size_t block) const { return memory_ + block * blockBytes_; }

 private:
  const std::uint64_t blockBytes_;
  char* memory_;
  std::size_t bytes_;
};

}  // namespace bench
