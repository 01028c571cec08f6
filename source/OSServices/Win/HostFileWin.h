#pragma once

#include "OSServices/HostFile.h"
#include "OSServices/Win/HostHeadersWin.h"

namespace Orvane {

// A file handle, or the host's invalid one for a file that could not be opened. Differences from
// the other host: a file is always unbuffered here, and no start of a transfer is put off; pipes,
// consoles and other devices can be opened, and a transfer waits for what is at their other end.
class HostFileWin : public HostFile {
 public:
  // What CreateFile is called with.
  struct Opening {
    DWORD access;
    DWORD share;
    DWORD disposition;
    DWORD flags;

    bool operator==(const Opening&) const = default;
  };
  static Opening OpeningFor(bool forRead, bool forWrite, bool create);

  // Opens for unbuffered overlapped I/O; write-through when for writing; shared with everybody.
  HostFileWin(const char* name, bool forRead, bool forWrite, bool create);

  HANDLE GetHandle() const { return handle_; }
  // True if `position` is at or behind the size of a file on a disk that has any.
  bool IsAtEnd(std::uint64_t position) const;
  // In bytes, of a file on a disk; below 0 where there is none, or none that can be asked.
  std::int64_t GetSize() const;

 protected:
  ~HostFileWin() override;

 private:
  HANDLE handle_ = INVALID_HANDLE_VALUE;
};

}  // namespace Orvane
