#pragma once

#include <string>

#include "../Job.h"
#include "OSServices/Win/HostHeadersWin.h"

namespace bench {

enum class PageCache { kBypassed, kUsed };
enum class Calls {
  kOverlapped,  // return while the transfer is under way
  kBlocking,
};

// The handle of a job's file, closed with the object.
class PeerFile {
 public:
  // Throws std::runtime_error.
  PeerFile(const std::string& peer, const Job& job, PageCache pageCache, Calls calls);
  ~PeerFile();
  PeerFile(const PeerFile&) = delete;
  PeerFile& operator=(const PeerFile&) = delete;

  HANDLE Get() const { return handle_; }

 private:
  HANDLE handle_;
};

// What tells a transfer its place in the file.
OVERLAPPED At(std::uint64_t offset);
// Throws std::runtime_error with what the host says about the error.
[[noreturn]] void ThrowHostError(const std::string& what, DWORD error);

}  // namespace bench
