#pragma once

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

}  // namespace bench
