// What every peer does: reads of one size at given places, so many in flight.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace bench {

struct Job {
  std::string file;
  std::uint64_t blockBytes;
  unsigned depth;  // reads in flight
};

// Reads blocks of a file. One object serves one job, again and again; what is slow to make is made
// by the factory. All peers read unbuffered where the file system can.
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

}  // namespace bench
