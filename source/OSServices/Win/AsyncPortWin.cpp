#include "OSServices/Win/AsyncPortWin.h"

#include <algorithm>

#include "MTInterface.h"
#include "OSServices/Win/HostFileWin.h"
#include "OSServices/Win/HostResultWin.h"

namespace Orvane {
namespace {

std::atomic<std::uint64_t> plainTransfers{0};
std::atomic<std::uint64_t> scatteredTransfers{0};

HANDLE NewEvent() {
  return CreateEventA(nullptr, /*bManualReset=*/FALSE, /*bInitialState=*/FALSE, nullptr);
}

void CloseEvent(HANDLE* event) {
  if (*event) CloseHandle(*event);
  *event = nullptr;
}

}  // namespace

AsyncPortWin::AsyncPortWin() = default;

AsyncPortWin::~AsyncPortWin() {
  Detach();
}

bool AsyncPortWin::Attach() {
  std::generate(requestEvents_.begin(), requestEvents_.end(), NewEvent);
  std::generate(signalEvents_.begin(), signalEvents_.end(), NewEvent);
  const auto isMissing = [](HANDLE event) { return !event; };
  return std::none_of(requestEvents_.begin(), requestEvents_.end(), isMissing) &&
         std::none_of(signalEvents_.begin(), signalEvents_.end(), isMissing);
}

void AsyncPortWin::Detach() {
  for (HANDLE& event : requestEvents_) CloseEvent(&event);
  for (HANDLE& event : signalEvents_) CloseEvent(&event);
}

AsyncPort::Started AsyncPortWin::Issue(const Transfer& transfer) {
  const Started started = CheckTransfer(transfer);
  if (started != Started::kInFlight) return started;
  InFlight& known = inFlight_[transfer.slot];
  known = {};
  known.overlapped.Offset = static_cast<DWORD>(transfer.offset);
  known.overlapped.OffsetHigh = static_cast<DWORD>(transfer.offset >> 32);
  known.overlapped.hEvent = requestEvents_[transfer.slot];
  known.file = static_cast<HostFileWin*>(transfer.file)->GetHandle();
  known.generation = transfer.generation;
  known.write = transfer.write;
  SetLastError(ERROR_SUCCESS);
  const DWORD error = Start(transfer, &known) ? ERROR_SUCCESS : GetLastError();
  // A transfer that is done at once signals its event just the same.
  known.active = error == ERROR_SUCCESS || error == ERROR_IO_PENDING;
  return known.active ? Started::kInFlight : StartedForHostError(error, transfer.write);
}

void AsyncPortWin::Cancel(std::uint32_t slot, std::uint32_t) {
  // Of the file, what this thread has started: whoever cancels a transfer cancels all of its file.
  if (inFlight_[slot].active) CancelIo(inFlight_[slot].file);
}

bool AsyncPortWin::Wait(std::uint32_t timeoutMs, Completion* completion) {
  constexpr std::size_t kSlots = AsyncHandler::kRequestSlots;
  for (;;) {
    std::array<HANDLE, kHandles> handles;
    std::rotate_copy(requestEvents_.begin(),
                     requestEvents_.begin() + static_cast<std::ptrdiff_t>(first_),
                     requestEvents_.end(), handles.begin());
    std::copy(signalEvents_.begin(), signalEvents_.end(), handles.begin() + kSlots);
    const DWORD answer =
        WaitForMultipleObjects(kHandles, handles.data(), /*bWaitAll=*/FALSE, timeoutMs);
    if (answer == WAIT_TIMEOUT) return false;
    const std::size_t place = answer - WAIT_OBJECT_0;
    if (place >= kHandles) {
      // The host refuses for a reason it should not have: never a spin.
      MTInterface::Sleep(1);
      return false;
    }
    if (place >= kSlots) {
      if (place - kSlots == static_cast<std::size_t>(Signal::kWork)) wakePending_.exchange(false);
      return false;
    }
    const std::size_t slot = (first_ + place) % kSlots;
    first_ = (slot + 1) % kSlots;
    if (TakeSlot(static_cast<std::uint32_t>(slot), completion)) return true;
  }
}

void AsyncPortWin::Wake(Signal signal) {
  if (signal == Signal::kWork && wakePending_.exchange(true)) return;
  SetEvent(signalEvents_[static_cast<std::size_t>(signal)]);
}

bool AsyncPortWin::IsAtEnd(HostFile* file, std::uint64_t position) {
  return static_cast<HostFileWin*>(file)->IsAtEnd(position);
}

AsyncPortWin::Counts AsyncPortWin::GetCounts() {
  return {plainTransfers.load(), scatteredTransfers.load()};
}

bool AsyncPortWin::Start(const Transfer& transfer, InFlight* known) {
  static_assert(sizeof(FILE_SEGMENT_ELEMENT) == sizeof(std::uint64_t));
  OVERLAPPED* const overlapped = &known->overlapped;
  // A list that is too long for one call, or that goes on inside of a page, moves stretch by
  // stretch.
  if (transfer.runCount == 1 || !transfer.segments || transfer.length > kMaxBytesPerCall) {
    ++plainTransfers;
    void* const address = transfer.runs->address;
    const auto length =
        static_cast<DWORD>(std::min<std::uint64_t>(transfer.runs->length, kMaxBytesPerCall));
    return transfer.write ? WriteFile(known->file, address, length, nullptr, overlapped) != 0
                          : ReadFile(known->file, address, length, nullptr, overlapped) != 0;
  }
  ++scatteredTransfers;
  // The host reads the array, and no more.
  auto* const segments =
      reinterpret_cast<FILE_SEGMENT_ELEMENT*>(const_cast<std::uint64_t*>(transfer.segments));
  const auto length = static_cast<DWORD>(transfer.length);
  return transfer.write ? WriteFileGather(known->file, segments, length, nullptr, overlapped) != 0
                        : ReadFileScatter(known->file, segments, length, nullptr, overlapped) != 0;
}

// False if there is nothing to collect.
bool AsyncPortWin::TakeSlot(std::uint32_t slot, Completion* completion) {
  InFlight& known = inFlight_[slot];
  if (!known.active) return false;
  DWORD bytes = 0;
  const bool succeeded =
      GetOverlappedResult(known.file, &known.overlapped, &bytes, /*bWait=*/FALSE) != 0;
  const DWORD error = succeeded ? ERROR_SUCCESS : GetLastError();
  if (error == ERROR_IO_INCOMPLETE) return false;
  known.active = false;
  *completion = {slot, known.generation, OutcomeForHostError(error, bytes, known.write),
                 succeeded ? bytes : std::uint64_t{0}};
  return true;
}

}  // namespace Orvane
