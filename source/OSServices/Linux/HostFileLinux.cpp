#include "OSServices/Linux/HostFileLinux.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>

namespace Orvane {
namespace {

int OpenRetrying(const char* name, int flags) {
  for (;;) {
    const int descriptor = open(name, flags, 0666);
    if (descriptor >= 0 || errno != EINTR) return descriptor;
  }
}

// The file systems of local devices and of memory, and devices themselves.
bool IsServedByKernel(int descriptor) {
  struct stat status {};
  struct statfs system {};
  if (fstat(descriptor, &status) != 0 || fstatfs(descriptor, &system) != 0) return false;
  if (!S_ISREG(status.st_mode)) return true;
  switch (system.f_type) {
    case EXT4_SUPER_MAGIC:
    case XFS_SUPER_MAGIC:
    case BTRFS_SUPER_MAGIC:
    case F2FS_SUPER_MAGIC:
    case TMPFS_MAGIC:
    case RAMFS_MAGIC:
      return true;
    default:
      return false;
  }
}

}  // namespace

HostFileLinux::HostFileLinux(const char* name, bool forRead, bool forWrite, bool create) {
  int flags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  flags |= forWrite ? (forRead ? O_RDWR : O_WRONLY) : O_RDONLY;
  if (forWrite) flags |= O_DSYNC;
  if (create) flags |= O_CREAT;

  descriptor_ = OpenRetrying(name, flags | O_DIRECT);
  unbuffered_ = descriptor_ >= 0;
  if (descriptor_ < 0 && errno == EINVAL) descriptor_ = OpenRetrying(name, flags);
  if (descriptor_ < 0) return;

  if (lseek(descriptor_, 0, SEEK_CUR) < 0) {
    close(descriptor_);
    descriptor_ = -1;
    return;
  }
  // It only served to open a pipe without waiting for its other end.
  const int status = fcntl(descriptor_, F_GETFL);
  if (status >= 0) fcntl(descriptor_, F_SETFL, status & ~O_NONBLOCK);
  startMayBlock_ = !IsServedByKernel(descriptor_);
}

HostFileLinux::~HostFileLinux() {
  if (descriptor_ >= 0) close(descriptor_);
}

bool HostFileLinux::IsAtEnd(std::uint64_t position) const {
  struct stat status {};
  if (descriptor_ < 0 || fstat(descriptor_, &status) != 0) return false;
  return S_ISREG(status.st_mode) && status.st_size > 0 &&
         position >= static_cast<std::uint64_t>(status.st_size);
}

}  // namespace Orvane
