#include "OSServices/Win/HostFileWin.h"

namespace Orvane {

HostFileWin::HostFileWin(const char* name, bool forRead, bool forWrite, bool create) {
  DWORD access = 0;
  if (forRead) access |= GENERIC_READ;
  if (forWrite) access |= GENERIC_WRITE;
  constexpr DWORD kShare = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  const DWORD disposition = create ? OPEN_ALWAYS : OPEN_EXISTING;
  DWORD flags = FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING;
  if (forWrite) flags |= FILE_FLAG_WRITE_THROUGH;
  handle_ = CreateFileA(name, access, kShare, nullptr, disposition, flags, nullptr);
}

HostFileWin::~HostFileWin() {
  if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
}

bool HostFileWin::IsAtEnd(std::uint64_t position) const {
  LARGE_INTEGER size{};
  if (handle_ == INVALID_HANDLE_VALUE || GetFileType(handle_) != FILE_TYPE_DISK) return false;
  if (!GetFileSizeEx(handle_, &size)) return false;
  return size.QuadPart > 0 && position >= static_cast<std::uint64_t>(size.QuadPart);
}

}  // namespace Orvane
