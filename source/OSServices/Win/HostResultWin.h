// How the answers of the host's transfer calls are understood. Differences from the other host:
// there errors are numbers below 0, and a transfer that does not start is reported like any other.
#pragma once

#include <cstdint>

#include "OSServices/AsyncPort.h"
#include "OSServices/Win/HostHeadersWin.h"

namespace Orvane {

// The outcome of a transfer that ended with this error, or with ERROR_SUCCESS and so many bytes.
AsyncPort::Outcome OutcomeForHostError(DWORD error, std::uint64_t bytes, bool write);
// The same for one that did not start.
AsyncPort::Started StartedForHostError(DWORD error, bool write);

// The answer to a transfer that must not reach the host: on a file that could not be opened, or at
// an offset that the host has no number for. kInFlight means: go ahead.
AsyncPort::Started CheckTransfer(const AsyncPort::Transfer& transfer);

// One call takes the number of bytes in 32 bits; unbuffered, they are whole pages.
inline constexpr std::uint64_t kMaxBytesPerCall = 0xFFFF0000;

}  // namespace Orvane
