#include "OSServices/Win/HostFileWin.h"

namespace Orvane {

HostFileWin::HostFileWin(const char* name, bool forRead, bool forWrite, bool create) {
  const Opening opening = OpeningFor(forRead, forWrite, create);
  handle_ = CreateFileA(name, opening.access, opening.share, nullptr, opening.disposition,
                        opening.flags, nullptr);
}

HostFileWin::~HostFileWin() {
  if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
}

HostFileWin::Opening HostFileWin::OpeningFor(bool forRead, bool forWrite, bool create) {
  DWORD access = 0;
  if (forRead) access |= GENERIC_READ;
  if (forWrite) access |= GENERIC_WRITE;
  constexpr DWORD kShare = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  const DWORD disposition = create ? OPEN_ALWAYS : OPEN_EXISTING;
  DWORD flags = FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING;
  if (forWrite) flags |= FILE_FLAG_WRITE_THROUGH;
  return {access, kShare, disposition, flags};
}

bool HostFileWin::IsAtEnd(std::uint64_t position) const {
  const std::int64_t size = GetSize();
  return size > 0 && position >= static_cast<std::uint64_t>(size);
}

std::int64_t HostFileWin::GetSize() const {
  constexpr std::int64_t kUnknown = -1;
  LARGE_INTEGER size{};
  if (handle_ == INVALID_HANDLE_VALUE || GetFileType(handle_) != FILE_TYPE_DISK) return kUnknown;
  return GetFileSizeEx(handle_, &size) ? size.QuadPart : kUnknown;
}

}  // namespace Orvane
