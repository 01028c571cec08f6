#include "OSServices/Linux/HostResultLinux.h"

#include <limits.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <limits>

#include "OSServices/Linux/HostFileLinux.h"

namespace Orvane {

AsyncPort::Outcome OutcomeForHostResult(std::int64_t result, bool write) {
  if (result > 0) return AsyncPort::Outcome::kMoved;
  if (result == -EINVAL) return AsyncPort::Outcome::kRefused;
  if (write) return AsyncPort::Outcome::kFailed;
  return result == 0 ? AsyncPort::Outcome::kEndOfFile : AsyncPort::Outcome::kFailed;
}

AsyncPort::Started CheckTransfer(const AsyncPort::Transfer& transfer) {
  const auto* const file = static_cast<const HostFileLinux*>(transfer.file);
  if (file->GetDescriptor() < 0) return AsyncPort::Started::kFailed;
  constexpr auto kHighestOffset =
      static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (transfer.offset <= kHighestOffset - kMaxBytesPerCall) return AsyncPort::Started::kInFlight;
  if (transfer.offset > kHighestOffset) {
    return transfer.write ? AsyncPort::Started::kFailed : AsyncPort::Started::kEndOfFile;
  }
  // The kernel refuses a range that merely passes the highest offset; a file that ends before the
  // range has nothing there all the same.
  const bool atEnd = !transfer.write && file->IsAtEnd(transfer.offset);
  return atEnd ? AsyncPort::Started::kEndOfFile : AsyncPort::Started::kInFlight;
}

HostVector ToHostVector(const AsyncPort::Transfer& transfer) {
  static_assert(sizeof(MemoryRun) == sizeof(iovec));
  static_assert(offsetof(MemoryRun, address) == offsetof(iovec, iov_base));
  static_assert(offsetof(MemoryRun, length) == offsetof(iovec, iov_len));
  return {reinterpret_cast<const iovec*>(transfer.runs),
          static_cast<unsigned>(std::min<std::size_t>(transfer.runCount, IOV_MAX))};
}

}  // namespace Orvane
