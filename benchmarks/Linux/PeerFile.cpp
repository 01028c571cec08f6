#include "PeerFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace bench {

PeerFile::PeerFile(const std::string& peer, const Job& job, PageCache pageCache) : peer_(peer) {
  const bool direct = pageCache == PageCache::kBypassed;
  const int flags = (job.write ? O_RDWR : O_RDONLY) | (direct ? O_DIRECT : 0) | O_CLOEXEC;
  descriptor_ = open(job.file.c_str(), flags);
  if (descriptor_ >= 0) return;
  const std::string reason = direct && errno == EINVAL
                                 ? "its file system does not bypass the page cache (O_DIRECT)"
                                 : std::strerror(errno);
  throw std::runtime_error(peer + ": cannot open " + job.file + ": " + reason);
}

PeerFile::~PeerFile() {
  close(descriptor_);
}

int PeerFile::Duplicate() const {
  const int descriptor = fcntl(descriptor_, F_DUPFD_CLOEXEC, 0);
  if (descriptor < 0) throw std::runtime_error(peer_ + ": " + std::strerror(errno));
  return descriptor;
}

void CheckMoved(const std::string& peer, std::int64_t moved, std::uint64_t wanted) {
  if (moved == static_cast<std::int64_t>(wanted)) return;
  throw std::runtime_error(
      peer + ": " +
      (moved < 0 ? std::string(std::strerror(static_cast<int>(-moved)))
                 : std::to_string(moved) + " bytes moved instead of " + std::to_string(wanted)));
}

void RequireReads(const std::string& peer, const Job& job) {
  if (job.write) throw std::runtime_error(peer + ": only reads");
}

}  // namespace bench
