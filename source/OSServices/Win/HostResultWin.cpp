#include "OSServices/Win/HostResultWin.h"

#include <limits>

#include "OSServices/Win/HostFileWin.h"

namespace Orvane {

AsyncPort::Outcome OutcomeForHostError(DWORD error, std::uint64_t bytes, bool write) {
  switch (error) {
    case ERROR_SUCCESS:
      if (bytes > 0) return AsyncPort::Outcome::kMoved;
      return write ? AsyncPort::Outcome::kFailed : AsyncPort::Outcome::kEndOfFile;
    case ERROR_HANDLE_EOF:
      return write ? AsyncPort::Outcome::kFailed : AsyncPort::Outcome::kEndOfFile;
    case ERROR_INVALID_PARAMETER:
      return AsyncPort::Outcome::kRefused;
    default:
      return AsyncPort::Outcome::kFailed;
  }
}

AsyncPort::Started StartedForHostError(DWORD error, bool write) {
  switch (OutcomeForHostError(error, 0, write)) {
    case AsyncPort::Outcome::kEndOfFile:
      return AsyncPort::Started::kEndOfFile;
    case AsyncPort::Outcome::kRefused:
      return AsyncPort::Started::kRefused;
    default:
      return AsyncPort::Started::kFailed;
  }
}

AsyncPort::Started CheckTransfer(const AsyncPort::Transfer& transfer) {
  const auto* const file = static_cast<const HostFileWin*>(transfer.file);
  if (file->GetHandle() == INVALID_HANDLE_VALUE) return AsyncPort::Started::kFailed;
  constexpr auto kHighestOffset =
      static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (transfer.offset <= kHighestOffset - kMaxBytesPerCall) return AsyncPort::Started::kInFlight;
  // Negative numbers mean something else to the host.
  if (transfer.offset > kHighestOffset) {
    return transfer.write ? AsyncPort::Started::kFailed : AsyncPort::Started::kEndOfFile;
  }
  // No size that it has reaches there: also of an empty file, which IsAtEnd is not certain of.
  const std::int64_t size = file->GetSize();
  const bool atEnd =
      !transfer.write && size >= 0 && transfer.offset >= static_cast<std::uint64_t>(size);
  return atEnd ? AsyncPort::Started::kEndOfFile : AsyncPort::Started::kInFlight;
}

}  // namespace Orvane
