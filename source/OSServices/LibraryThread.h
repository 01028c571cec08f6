// Tells the library's own threads from the application's.
#pragma once

#include "OSServices/ThreadState.h"

namespace Orvane {

// Marks the calling thread as one that runs callers' callbacks (the I/O thread, the threads of a
// cache) for the length of a block. A synchronous call made there could wait for the very thread it
// runs on.
class LibraryThreadMark {
 public:
  LibraryThreadMark() { ++Depth(); }
  ~LibraryThreadMark() { --Depth(); }
  LibraryThreadMark(const LibraryThreadMark&) = delete;
  LibraryThreadMark& operator=(const LibraryThreadMark&) = delete;

  static bool IsSetOnThisThread() { return Depth() > 0; }

 private:
  static int& Depth() { return GetThreadState().libraryDepth; }
};

// What a thread does for others while it waits, because they may wait for it.
class WaitServant {
 public:
  // Returns soon. Callers' callbacks may run inside.
  virtual void ServeWhileWaiting() = 0;

  // Null on a thread that nobody waits for.
  static WaitServant*& OfThisThread() { return GetThreadState().servant; }

 protected:
  WaitServant() = default;
  virtual ~WaitServant() = default;
};

}  // namespace Orvane
