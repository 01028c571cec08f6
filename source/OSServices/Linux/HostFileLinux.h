#pragma once

#include "OSServices/HostFile.h"

namespace Orvane {

// A file descriptor, or -1 for a file that could not be opened. Differences from the other host:
// there every file is unbuffered, and no start of a transfer is put off.
class HostFileLinux : public HostFile {
 public:
  // Opens for unbuffered I/O, buffered where the file system refuses that; write-through when for
  // writing; close-on-exec; a new file has mode 0666 less the umask. What has no offsets (pipes,
  // terminals) is not opened. Never blocks on a peer.
  HostFileLinux(const char* name, bool forRead, bool forWrite, bool create);

  bool IsUnbuffered() const override { return unbuffered_; }
  int GetDescriptor() const { return descriptor_; }
  // True if starting a transfer may wait for whoever serves the file: a process (FUSE) or another
  // machine. The thread that issues transfers for all files must not start it itself.
  bool StartMayBlock() const { return startMayBlock_; }
  // True if `position` is at or behind the size of a regular file that reports one.
  bool IsAtEnd(std::uint64_t position) const;

 protected:
  ~HostFileLinux() override;

 private:
  int descriptor_ = -1;
  bool unbuffered_ = false;
  bool startMayBlock_ = false;
};

}  // namespace Orvane
