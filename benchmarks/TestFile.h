#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// A file of random content, written to the device when made and removed at the end.
class TestFile {
 public:
  // Throws std::runtime_error if it cannot be written.
  TestFile(const std::string& directory, std::uint64_t bytes);
  ~TestFile();
  TestFile(const TestFile&) = delete;
  TestFile& operator=(const TestFile&) = delete;

  const std::string& GetName() const { return name_; }
  std::uint64_t GetSize() const { return bytes_; }

 private:
  std::string name_;
  std::uint64_t bytes_;
};

// Opens for reading without the page cache; with it where the file system refuses.
int OpenUnbuffered(const std::string& name);
int OpenBuffered(const std::string& name);
// Makes the page cache forget the file.
void DropFromPageCache(const std::string& name);

// Offsets of whole blocks: `count` random ones, the same for every peer, or all in order.
std::vector<std::uint64_t> RandomOffsets(std::uint64_t fileBytes, std::uint64_t blockBytes,
                                         std::size_t count);
std::vector<std::uint64_t> SequentialOffsets(std::uint64_t fileBytes, std::uint64_t blockBytes);

// Page-aligned memory for `blocks` blocks, freed with the object.
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
};

}  // namespace bench
