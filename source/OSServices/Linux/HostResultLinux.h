// How the answers of the kernel's transfer calls are understood; shared by both engines.
// Differences from the other host: there errors are numbers above 0, and a call takes pages instead
// of runs.
#pragma once

#include <sys/uio.h>

#include <cstdint>

#include "OSServices/AsyncPort.h"

namespace Orvane {

// The outcome for a byte count of 0 or more, or a negated error number.
AsyncPort::Outcome OutcomeForHostResult(std::int64_t result, bool write);

// The answer to a transfer that must not reach the kernel: on a file that could not be opened, or
// at an offset that the kernel has no number for (it takes the highest as "the current position").
// kInFlight means: go ahead.
AsyncPort::Started CheckTransfer(const AsyncPort::Transfer& transfer);

// The host's view of the runs of a transfer: as many as one call takes.
struct HostVector {
  const iovec* entries;
  unsigned count;
};
HostVector ToHostVector(const AsyncPort::Transfer& transfer);

// A call that was interrupted is made again, but not for ever: a file system may answer so for
// good.
inline constexpr int kMaxInterruptions = 100;

// The kernel moves at most this many bytes per call, whatever it is asked for.
inline constexpr std::size_t kMaxBytesPerCall = 0x7FFFF000;

}  // namespace Orvane
