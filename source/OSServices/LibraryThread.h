// Tells the library's own threads from the application's.
#pragma once

namespace Orvane {

// Marks the calling thread as one that runs callers' callbacks (the I/O thread) for the length of a
// block. A synchronous call made there would wait for the very thread it runs on.
class LibraryThreadMark {
 public:
  LibraryThreadMark() { ++Depth(); }
  ~LibraryThreadMark() { --Depth(); }
  LibraryThreadMark(const LibraryThreadMark&) = delete;
  LibraryThreadMark& operator=(const LibraryThreadMark&) = delete;

  static bool IsSetOnThisThread() { return Depth() > 0; }

 private:
  static int& Depth() {
    thread_local int depth = 0;
    return depth;
  }
};

}  // namespace Orvane
