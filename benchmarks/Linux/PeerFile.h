#pragma once

#include <cstdint>
#include <string>

#include "../Job.h"

namespace bench {

enum class PageCache { kBypassed, kUsed };

// The descriptor of a job's file, closed with the object.
class PeerFile {
 public:
  // Throws std::runtime_error, also where the file system always uses the page cache: what is
  // measured would not be what it is called.
  PeerFile(const std::string& peer, const Job& job, PageCache pageCache);
  ~PeerFile();
  PeerFile(const PeerFile&) = delete;
  PeerFile& operator=(const PeerFile&) = delete;

  int Get() const { return descriptor_; }
  // Another descriptor of the same open file, for an owner that closes it.
  int Duplicate() const;

 private:
  const std::string peer_;
  int descriptor_;
};

// Throws std::runtime_error unless all bytes were moved. `moved` is a negative error number after a
// failure.
void CheckMoved(const std::string& peer, std::int64_t moved, std::uint64_t wanted);
// Throws std::runtime_error if the job writes.
void RequireReads(const std::string& peer, const Job& job);

}  // namespace bench
