#include "PeerFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace bench {

PeerFile::PeerFile(const std::string& peer, const Job& job, PageCache pageCache) : peer_(peer) {
  const bool direct = pageCache == PageCache::kBypassed;
  int flags = (job.write ? O_RDWR : O_RDONLY) | (direct ? O_DIRECT : 0) | O_CLOEXEC;
  // As the library opens: what is reported as written is on the device.
  if (job.write) flags |= O_DSYNC;
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

}  // namespace bench
