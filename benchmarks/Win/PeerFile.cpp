#include "PeerFile.h"

#include <stdexcept>
#include <system_error>

namespace bench {

PeerFile::PeerFile(const std::string& peer, const Job& job, PageCache pageCache, Calls calls) {
  const DWORD access = GENERIC_READ | (job.write ? GENERIC_WRITE : 0U);
  constexpr DWORD kShare = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  DWORD flags = FILE_ATTRIBUTE_NORMAL;
  if (pageCache == PageCache::kBypassed) flags |= FILE_FLAG_NO_BUFFERING;
  if (calls == Calls::kOverlapped) flags |= FILE_FLAG_OVERLAPPED;
  // As the library opens: what is written is on the device.
  if (job.write) flags |= FILE_FLAG_WRITE_THROUGH;
  handle_ = CreateFileA(job.file.c_str(), access, kShare, nullptr, OPEN_EXISTING, flags, nullptr);
  if (handle_ == INVALID_HANDLE_VALUE) {
    ThrowHostError(peer + ": cannot open " + job.file, GetLastError());
  }
}

PeerFile::~PeerFile() {
  CloseHandle(handle_);
}

OVERLAPPED At(std::uint64_t offset) {
  OVERLAPPED overlapped{};
  overlapped.Offset = static_cast<DWORD>(offset);
  overlapped.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return overlapped;
}

void ThrowHostError(const std::string& what, DWORD error) {
  throw std::runtime_error(what + ": " + std::system_category().message(static_cast<int>(error)));
}

}  // namespace bench
