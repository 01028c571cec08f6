#include "OSServices/Linux/AsyncPortUringLinux.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

#include "MTInterface.h"
#include "OSServices/Linux/HostFileLinux.h"
#include "OSServices/Linux/HostResultLinux.h"

namespace Orvane {
namespace {

// Every slot may have a transfer and its cancellation queued, beside the read of the event.
constexpr unsigned kRingEntries = 128;
static_assert(2 * AsyncHandler::kRequestSlots + 1 <= kRingEntries);

// Once so many entries wait, they are submitted although completions are still to be looked at:
// callbacks that take their time must not leave the device without work.
constexpr unsigned kSubmitThreshold = 16;

// User data: the slot below, its generation above. No slot is as high as these.
constexpr std::uint64_t kWakeTag = 0xFFFFFFFF;
constexpr std::uint64_t kCancelTag = 0xFFFFFFFE;

std::uint64_t TagFor(std::uint32_t slot, std::uint32_t generation) {
  return (std::uint64_t{generation} << 32) | slot;
}

__kernel_timespec ToTimespec(std::uint32_t timeoutMs) {
  return {timeoutMs / 1000, static_cast<long long>(timeoutMs % 1000) * 1000000};
}

}  // namespace

AsyncPortUringLinux::AsyncPortUringLinux() = default;

AsyncPortUringLinux::~AsyncPortUringLinux() {
  Detach();
}

bool AsyncPortUringLinux::Attach() {
  wakeEvent_ = eventfd(1, EFD_CLOEXEC);
  if (wakeEvent_ >= 0 && MakeRing() && TryTransfer()) return true;
  Detach();
  return false;
}

void AsyncPortUringLinux::Detach() {
  if (ringMade_) io_uring_queue_exit(&ring_);
  ringMade_ = false;
  if (wakeEvent_ >= 0) close(wakeEvent_);
  wakeEvent_ = -1;
}

bool AsyncPortUringLinux::MakeRing() {
  // The best first; older kernels refuse what they do not know.
  constexpr unsigned kFlagSets[] = {
      IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN,
      IORING_SETUP_COOP_TASKRUN,
      0,
  };
  for (const unsigned flags : kFlagSets) {
    if (io_uring_queue_init(kRingEntries, &ring_, flags) != 0) continue;
    ringMade_ = true;
    io_uring_ring_dontfork(&ring_);
    io_uring_register_ring_fd(&ring_);  // saves a look-up per call; best effort
    // As many kernel workers as transfers, if they all block: none waits for another file's.
    unsigned workers[2] = {AsyncHandler::kRequestSlots, AsyncHandler::kRequestSlots};
    io_uring_register_iowq_max_workers(&ring_, workers);
    return true;
  }
  return false;
}

// The event was made with the value 1, so the read that the ring always holds ends at once.
bool AsyncPortUringLinux::TryTransfer() {
  constexpr std::uint32_t kTrialTimeoutMs = 5000;
  QueueWakeRead();
  __kernel_timespec limit = ToTimespec(kTrialTimeoutMs);
  io_uring_cqe* entry = nullptr;
  io_uring_submit_and_wait_timeout(&ring_, &entry, 1, &limit, nullptr);
  queuedEntries_ = 0;
  if (io_uring_peek_cqe(&ring_, &entry) != 0) return false;
  const bool moved = entry->res == sizeof wakeValue_ && wakeValue_ == 1;
  io_uring_cqe_seen(&ring_, entry);
  if (moved) QueueWakeRead();
  return moved;
}

AsyncPort::Started AsyncPortUringLinux::Issue(const Transfer& transfer) {
  const Started started = CheckTransfer(transfer);
  if (started != Started::kInFlight) return started;
  inFlight_[transfer.slot] = {transfer, /*interruptions=*/0, /*cancelled=*/false};
  QueueTransfer(transfer);
  return Started::kInFlight;
}

void AsyncPortUringLinux::Cancel(std::uint32_t slot, std::uint32_t generation) {
  inFlight_[slot].cancelled = true;
  io_uring_sqe* const entry = GetEntry();
  io_uring_prep_cancel64(entry, TagFor(slot, generation), 0);
  io_uring_sqe_set_data64(entry, kCancelTag);
}

bool AsyncPortUringLinux::Wait(std::uint32_t timeoutMs, Completion* completion) {
  if (queuedEntries_ >= kSubmitThreshold) {
    io_uring_submit(&ring_);
    queuedEntries_ = io_uring_sq_ready(&ring_);
  }
  for (;;) {
    io_uring_cqe* entry = nullptr;
    while (io_uring_peek_cqe(&ring_, &entry) == 0) {
      const io_uring_cqe taken = *entry;
      io_uring_cqe_seen(&ring_, entry);
      if (TakeEntry(taken, completion)) return true;
    }
    if (wakePending_.exchange(false)) return false;
    if (!SubmitAndSleep(timeoutMs)) return false;
  }
}

void AsyncPortUringLinux::Wake(Signal) {
  if (wakePending_.exchange(true)) return;
  if (!sleeping_.load()) return;
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wakeEvent_, &one, sizeof one);
}

bool AsyncPortUringLinux::IsAtEnd(HostFile* file, std::uint64_t position) {
  return static_cast<HostFileLinux*>(file)->IsAtEnd(position);
}

void AsyncPortUringLinux::QueueWakeRead() {
  io_uring_sqe* const entry = GetEntry();
  io_uring_prep_read(entry, wakeEvent_, &wakeValue_, sizeof wakeValue_, 0);
  io_uring_sqe_set_data64(entry, kWakeTag);
}

void AsyncPortUringLinux::QueueTransfer(const Transfer& transfer) {
  const auto* const file = static_cast<HostFileLinux*>(transfer.file);
  const int descriptor = file->GetDescriptor();
  const HostVector vector = ToHostVector(transfer);
  io_uring_sqe* const entry = GetEntry();
  if (vector.count == 1) {
    void* const address = vector.entries->iov_base;
    const auto length =
        static_cast<unsigned>(std::min<std::size_t>(vector.entries->iov_len, kMaxBytesPerCall));
    if (transfer.write) {
      io_uring_prep_write(entry, descriptor, address, length, transfer.offset);
    } else {
      io_uring_prep_read(entry, descriptor, address, length, transfer.offset);
    }
  } else if (transfer.write) {
    io_uring_prep_writev(entry, descriptor, vector.entries, vector.count, transfer.offset);
  } else {
    io_uring_prep_readv(entry, descriptor, vector.entries, vector.count, transfer.offset);
  }
  if (file->StartMayBlock()) io_uring_sqe_set_flags(entry, IOSQE_ASYNC);
  io_uring_sqe_set_data64(entry, TagFor(transfer.slot, transfer.generation));
}

// A full submission queue is emptied into the kernel, which has room for all that is ever queued.
io_uring_sqe* AsyncPortUringLinux::GetEntry() {
  for (;;) {
    if (io_uring_sqe* const entry = io_uring_get_sqe(&ring_)) {
      ++queuedEntries_;
      return entry;
    }
    if (io_uring_submit(&ring_) <= 0) MTInterface::Sleep(1);
    queuedEntries_ = io_uring_sq_ready(&ring_);
  }
}

bool AsyncPortUringLinux::TakeEntry(const io_uring_cqe& entry, Completion* completion) {
  if (entry.user_data == kWakeTag) {
    QueueWakeRead();
    return false;
  }
  if (entry.user_data == kCancelTag) return false;
  const auto slot = static_cast<std::uint32_t>(entry.user_data);
  InFlight& known = inFlight_[slot];
  if (entry.res == -EINTR && !known.cancelled && ++known.interruptions <= kMaxInterruptions) {
    QueueTransfer(known.transfer);
    return false;
  }
  *completion = {slot, static_cast<std::uint32_t>(entry.user_data >> 32),
                 OutcomeForHostResult(entry.res, known.transfer.write),
                 entry.res > 0 ? static_cast<std::uint64_t>(entry.res) : 0};
  return true;
}

bool AsyncPortUringLinux::SubmitAndSleep(std::uint32_t timeoutMs) {
  // Either this thread sees the wake-up below, or the waker sees that it sleeps.
  sleeping_.store(true);
  if (wakePending_.load()) {
    sleeping_.store(false);
    return true;
  }
  int result = 0;
  if (timeoutMs == kWaitForEver) {
    result = io_uring_submit_and_wait(&ring_, 1);
  } else {
    __kernel_timespec limit = ToTimespec(timeoutMs);
    io_uring_cqe* entry = nullptr;
    result = io_uring_submit_and_wait_timeout(&ring_, &entry, 1, &limit, nullptr);
  }
  sleeping_.store(false);
  queuedEntries_ = io_uring_sq_ready(&ring_);
  if (result == -ETIME) return false;
  // The kernel is short of memory, or refuses for a reason it should not have: never a spin.
  if (result < 0 && result != -EINTR && result != -EBUSY) MTInterface::Sleep(1);
  return true;
}

}  // namespace Orvane
