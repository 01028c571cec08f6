// What a host supplies to the asynchronous I/O handler.
#pragma once

#include <cstddef>
#include <cstdint>

#include "OSServices/HostFile.h"
#include "OSServices/ScatterGatherManager.h"

namespace Orvane {

// The handler owns one port and drives it from its worker thread: Issue transfers, Wait for what
// happens next, Cancel. Only Wake is called from other threads. The port knows nothing of requests,
// deadlines or results: it moves bytes and answers each issued transfer with exactly one
// completion, which carries the slot and the generation that Issue was given.
class AsyncPort {
 public:
  struct Transfer {
    std::uint32_t slot;        // below the handler's number of slots; one transfer each at a time
    std::uint32_t generation;  // of the slot; comes back with the completion
    bool write;
    HostFile* file;         // made by the same host; kept alive by the handler
    std::uint64_t offset;   // bytes
    const MemoryRun* runs;  // what to move, in order; unchanged until the completion
    std::size_t runCount;   // at least 1
    // The same page by page, a 0 behind the last; null where the transfer begins inside of a page.
    const std::uint64_t* segments;
    std::uint64_t length;  // of all, in bytes
  };

  enum class Outcome {
    kMoved,      // `bytes` were moved, possibly fewer than asked; 0 only at the end of the data
    kEndOfFile,  // nothing was moved: at or behind the end of the file
    kFailed,     // the host failed
    kRefused,    // the host takes no transfer at such an offset or of such a length
  };

  struct Completion {
    std::uint32_t slot;
    std::uint32_t generation;
    Outcome outcome;
    std::uint64_t bytes;
  };

  enum class Started {
    kInFlight,   // its completion will come out of Wait
    kEndOfFile,  // the host said so at once; no completion follows
    kFailed,     // the host failed at once; no completion follows
    kRefused,    // the host takes no such transfer (Outcome::kRefused); no completion follows
  };

  // Why the worker is woken.
  enum class Signal {
    kWork,    // there is something to issue
    kStop,    // it is to end
    kCancel,  // somebody waits for a cancel
  };

  static constexpr std::uint32_t kWaitForEver = 0xFFFFFFFF;

  virtual ~AsyncPort() = default;

  // On the worker thread, first of all. False if this port cannot work here.
  virtual bool Attach() = 0;
  // On the worker thread, last of all. REQUIRES: nothing is in flight.
  virtual void Detach() = 0;

  // Starts, or queues for the next Wait, one transfer.
  virtual Started Issue(const Transfer& transfer) = 0;
  // Asks the host to give up an issued transfer. Its completion still comes, with any outcome, and
  // only when the host has let go of the memory.
  virtual void Cancel(std::uint32_t slot, std::uint32_t generation) = 0;
  // Starts everything that Issue and Cancel queued and waits up to timeoutMs for one completion.
  // False when there is none: the time ran out or Wake was called since the last Wait.
  virtual bool Wait(std::uint32_t timeoutMs, Completion* completion) = 0;
  // Any thread. Makes a current or the next Wait return.
  virtual void Wake(Signal signal) = 0;
  // True if `position` is known to be at or behind the end of the file; false if it is before it
  // or the host cannot tell without a transfer.
  virtual bool IsAtEnd(HostFile* file, std::uint64_t position) = 0;
};

}  // namespace Orvane
