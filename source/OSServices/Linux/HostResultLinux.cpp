#include "OSServices/Linux/HostResultLinux.h"

#include <limits.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <limits>

namespace Orvane {

AsyncPort::Outcome OutcomeForHostResult(std::int64_t result, bool write) {
  if (result > 0) return AsyncPort::Outcome::kMoved;
  if (write) return AsyncPort::Outcome::kFailed;
  // EOVERFLOW: the range passes the highest offset that a file can have.
  const bool atEnd = result == 0 || result == -EOVERFLOW;
  return atEnd ? AsyncPort::Outcome::kEndOfFile : AsyncPort::Outcome::kFailed;
}

AsyncPort::Started CheckTransfer(const AsyncPort::Transfer& transfer, int descriptor) {
  if (descriptor < 0) return AsyncPort::Started::kFailed;
  constexpr auto kHighestOffset =
      static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (transfer.offset <= kHighestOffset) return AsyncPort::Started::kInFlight;
  return transfer.write ? AsyncPort::Started::kFailed : AsyncPort::Started::kEndOfFile;
}

HostVector ToHostVector(const AsyncPort::Transfer& transfer) {
  static_assert(sizeof(MemoryRun) == sizeof(iovec));
  static_assert(offsetof(MemoryRun, address) == offsetof(iovec, iov_base));
  static_assert(offsetof(MemoryRun, length) == offsetof(iovec, iov_len));
  return {reinterpret_cast<const iovec*>(transfer.runs),
          static_cast<unsigned>(std::min<std::size_t>(transfer.runCount, IOV_MAX))};
}

}  // namespace Orvane
