// A file system whose files misbehave, each in its own way.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace Orvane {

// Served by a process of its own, which unmounts and ends when this object goes or when the process
// of the tests does. Every file has 1 MiB of the pattern (see FilePattern.h) and takes any write:
//
// | name           | what is odd about it                                               |
// |----------------|--------------------------------------------------------------------|
// | plain          | nothing                                                            |
// | held           | reads and writes wait for ReleaseHeld                              |
// | interruptible  | the same, but end with EINTR when the kernel asks for it           |
// | eio            | every read and write fails with EIO                                |
// | eio-later      | reads fail with EIO from kGoodBytes on, short before               |
// | short          | at most kShortBytes per read or write: more than a page            |
// | tiny           | at most kTinyBytes per read: less than a page                      |
// | nothing        | reads move nothing, although the file has a size                   |
// | full           | writes fail with ENOSPC from kGoodBytes on, short before           |
// | buffered       | refuses to be opened for unbuffered access                         |
// | buffered-tiny  | the same, at most kTinyBytes per read                              |
class FaultyFileSystem {
 public:
  static constexpr std::size_t kSize = 1 << 20;
  static constexpr std::size_t kGoodBytes = 50000;
  static constexpr std::size_t kShortBytes = 5000;
  static constexpr std::size_t kTinyBytes = 1000;

  FaultyFileSystem();
  ~FaultyFileSystem();
  FaultyFileSystem(const FaultyFileSystem&) = delete;
  FaultyFileSystem& operator=(const FaultyFileSystem&) = delete;

  // False if it cannot be mounted here.
  bool IsMounted() const { return mounted_; }
  std::string PathOf(const std::string& name) const { return point_ + "/" + name; }

  // Waits until at least `count` requests wait for their release; false after a minute.
  bool AwaitHeld(std::size_t count);
  // Carries out what waits now, and everything that comes afterwards at once.
  void ReleaseHeld();
  // What comes from now on waits again.
  void HoldAgain();

 private:
  bool Ask(const std::string& command);

  const std::string point_;
  pid_t server_ = -1;
  int commands_ = -1;
  int answers_ = -1;
  bool mounted_ = false;
};

}  // namespace Orvane
