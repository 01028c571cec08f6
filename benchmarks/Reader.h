// What every peer does: reads of one size at given places, so many in flight.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace bench {

// The cache that the library reads through.
struct CacheShape {
  std::uint64_t blockBytes = 0;  // of a cache block
  std::size_t blocks = 0;        // 0: no cache

  std::uint64_t Bytes() const { return blockBytes * blocks; }
};

struct Job {
  std::string file;
  std::uint64_t blockBytes;
  unsigned depth;  // reads in flight
  CacheShape cache{};
  bool throughPageCache = false;    // of the peers
  std::uint64_t preReadWindow = 0;  // bytes asked for ahead of the reader
};

// Reads blocks of a file. One object serves one job, again and again; what is slow to make is made
// by the factory. All peers read unbuffered where the file system can, unless the job says
// otherwise.
class Reader {
 public:
  virtual ~Reader() = default;
  // Reads the blocks at all of `offsets` (bytes), in any order of completion. Throws
  // std::runtime_error if one of them fails or comes short.
  virtual void ReadAll(const std::vector<std::uint64_t>& offsets) = 0;
};

std::unique_ptr<Reader> NewOrvaneReader(const Job& job);      // this library, asynchronous lists
std::unique_ptr<Reader> NewOrvaneSyncReader(const Job& job);  // this library, one Read at a time
std::unique_ptr<Reader> NewRingReader(const Job& job);        // liburing, nothing around it
std::unique_ptr<Reader> NewPreadReader(const Job& job);       // pread, one after another
std::unique_ptr<Reader> NewMappingReader(const Job& job);     // memcpy from a mapping of the file
// One synchronous read after another, pre-reads ahead of them; each ReadAll begins with nothing in
// the cache.
std::unique_ptr<Reader> NewScanReader(const Job& job);
// pread; each ReadAll begins with nothing of the file in the page cache.
std::unique_ptr<Reader> NewColdPreadReader(const Job& job);

}  // namespace bench
