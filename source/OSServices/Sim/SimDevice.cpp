#include "OSServices/Sim/SimDevice.h"

#include <algorithm>
#include <cstring>

#include "OSServices/Sim/AsyncPortSim.h"
#include "OSServices/Sim/SimPages.h"
#include "OSServices/Sim/SimWorld.h"

namespace Orvane {
namespace {

// What an unbuffered transfer is made of.
constexpr std::uint64_t kSector = 512;
// How long a transfer that hangs takes at most before it fails.
constexpr std::uint64_t kLongMicros = 200000;

SimFile* FileOf(const AsyncPort::Transfer& transfer) {
  return static_cast<HostFileSim*>(transfer.file)->GetFile();
}

// Whether its file was opened at all, and for this.
bool IsAllowed(const AsyncPort::Transfer& transfer) {
  return FileOf(transfer) && static_cast<HostFileSim*>(transfer.file)->Allows(transfer.write);
}

// Whether it takes until its file hangs no longer, or until it is given up.
bool Hangs(const AsyncPort::Transfer& transfer) {
  const SimFile* const file = FileOf(transfer);
  return file && file->hanging;
}

bool IsBuffered(const AsyncPort::Transfer& transfer) {
  return !transfer.file->IsUnbuffered();
}

// Whether an unbuffered transfer is one of whole sectors, in the file and in memory.
bool IsOfSectors(std::uint64_t offset, const std::vector<MemoryRun>& runs) {
  return offset % kSector == 0 && std::all_of(runs.begin(), runs.end(), [](const MemoryRun& run) {
           return reinterpret_cast<std::uintptr_t>(run.address) % kSector == 0 &&
                  run.length % kSector == 0;
         });
}

}  // namespace

void SimDevice::Create(const std::string& name, std::vector<unsigned char> content) {
  std::shared_ptr<SimFile>& file = files_[name];
  if (!file) file = std::make_shared<SimFile>();
  file->bytes = std::move(content);
}

std::shared_ptr<SimFile> SimDevice::Find(const std::string& name) const {
  const auto found = files_.find(name);
  return found == files_.end() ? nullptr : found->second;
}

bool SimDevice::Delete(const std::string& name) {
  return files_.erase(name) != 0;
}

void SimDevice::Start(AsyncPortSim* port, const AsyncPort::Transfer& asked) {
  auto transfer = std::make_unique<Transfer>();
  transfer->port = port;
  transfer->asked = asked;
  transfer->runs.assign(asked.runs, asked.runs + asked.runCount);
  transfer->length = 0;
  for (const MemoryRun& run : transfer->runs) transfer->length += run.length;
  SimRandom& random = world_->DeviceRandom();
  const std::uint64_t latency = latency_ == 0 ? 0 : random.Below(latency_ + 1);
  transfer->readyAt = world_->Now() + (random.OneIn(3) ? 0 : latency);
  if (world_->DrawFault(world_->Setup().faults.hang)) {
    transfer->cancelled = true;
    transfer->readyAt = world_->Now() + random.Below(kLongMicros);
  }
  transfers_.push_back(std::move(transfer));
}

// It may be too late, and it may take its time.
void SimDevice::GiveUp(std::uint32_t slot, std::uint32_t generation) {
  for (const auto& transfer : transfers_) {
    if (transfer->asked.slot != slot || transfer->asked.generation != generation) continue;
    if (transfer->settled) return;
    SimRandom& random = world_->DeviceRandom();
    transfer->cancelled = transfer->cancelled || Hangs(transfer->asked) || !random.OneIn(4);
    if (random.OneIn(2)) transfer->readyAt = world_->Now();
    if (random.OneIn(4)) transfer->readyAt = world_->Now() + random.Below(20000);
  }
}

bool SimDevice::IsReady(const Transfer& transfer) const {
  if (transfer.settled || transfer.readyAt > world_->Now()) return false;
  return transfer.cancelled || !Hangs(transfer.asked);
}

bool SimDevice::HasReadyTransfer() const {
  return std::any_of(transfers_.begin(), transfers_.end(),
                     [this](const auto& transfer) { return IsReady(*transfer); });
}

std::uint64_t SimDevice::GetNextReadyTime() const {
  std::uint64_t next = kSimNever;
  for (const auto& transfer : transfers_) {
    if (!transfer->settled && (transfer->cancelled || !Hangs(transfer->asked))) {
      next = std::min(next, transfer->readyAt);
    }
  }
  return next;
}

void SimDevice::CompleteOne() {
  std::size_t ready = 0;
  for (const auto& transfer : transfers_) ready += IsReady(*transfer) ? 1U : 0U;
  std::uint64_t chosen = world_->DeviceRandom().Below(ready);
  for (const auto& transfer : transfers_) {
    if (!IsReady(*transfer) || chosen-- != 0) continue;
    Settle(transfer.get());
    // What did not move is told apart, too: negative, by its outcome.
    world_->Record(SimEvent::kTransferDone, transfer->asked.slot,
                   transfer->outcome == AsyncPort::Outcome::kMoved
                       ? transfer->bytes
                       : std::uint64_t{0} - static_cast<std::uint64_t>(transfer->outcome));
    return;
  }
}

void SimDevice::Settle(Transfer* transfer) {
  transfer->settled = true;
  const AsyncPort::Transfer& asked = transfer->asked;
  if (!IsAllowed(asked)) return;
  const bool failed = world_->DrawFault(world_->Setup().faults.failTransfer);
  if (!failed && !IsBuffered(asked) && !IsOfSectors(asked.offset, transfer->runs)) {
    transfer->outcome = AsyncPort::Outcome::kRefused;
    return;
  }
  if (asked.write) {
    SettleWrite(transfer, *FileOf(asked));
  } else {
    SettleRead(transfer, *FileOf(asked));
  }
  if (failed || transfer->cancelled) CutShort(transfer);
  SimRandom& random = world_->DeviceRandom();
  if (asked.write) {
    MoveOutOfMemory(*transfer, random.Below(transfer->stored + 1));
  } else {
    MoveIntoMemory(*transfer, random.Below(transfer->snapshot.size() + 1));
  }
}

// It fails, with nothing or a part of it done.
void SimDevice::CutShort(Transfer* transfer) {
  transfer->outcome = AsyncPort::Outcome::kFailed;
  transfer->bytes = 0;
  SimRandom& random = world_->DeviceRandom();
  const std::uint64_t whole = std::max<std::uint64_t>(transfer->stored, transfer->snapshot.size());
  const std::uint64_t moved = random.OneIn(2) ? 0 : random.Below(whole + 1);
  transfer->stored = std::min(transfer->stored, moved);
  if (transfer->snapshot.size() > moved) transfer->snapshot.resize(moved);
}

void SimDevice::SettleRead(Transfer* transfer, const SimFile& file) {
  const std::uint64_t offset = transfer->asked.offset;
  const std::uint64_t size = file.bytes.size();
  if (offset >= size) {
    transfer->outcome = world_->DeviceRandom().OneIn(2) ? AsyncPort::Outcome::kEndOfFile
                                                        : AsyncPort::Outcome::kMoved;
    return;
  }
  std::uint64_t bytes = std::min(transfer->length, size - offset);
  if (world_->DrawFault(world_->Setup().faults.shortTransfer)) {
    ++shortTransfers_;
    bytes = Shorten(bytes, IsBuffered(transfer->asked));
  }
  transfer->outcome = AsyncPort::Outcome::kMoved;
  transfer->bytes = bytes;
  transfer->snapshot.assign(file.bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                            file.bytes.begin() + static_cast<std::ptrdiff_t>(offset + bytes));
}

void SimDevice::SettleWrite(Transfer* transfer, const SimFile& file) {
  std::uint64_t bytes = transfer->length;
  const std::uint64_t end = transfer->asked.offset + bytes;
  const std::uint64_t growth = end > file.bytes.size() ? end - file.bytes.size() : 0;
  const std::uint64_t used = GetUsedBytes();
  if (growth > capacity_ - std::min(used, capacity_)) {
    transfer->outcome = AsyncPort::Outcome::kFailed;
    return;
  }
  if (world_->DrawFault(world_->Setup().faults.shortTransfer)) {
    ++shortTransfers_;
    bytes = Shorten(bytes, IsBuffered(transfer->asked));
  }
  transfer->outcome = AsyncPort::Outcome::kMoved;
  transfer->bytes = bytes;
  transfer->stored = bytes;
  if (world_->DrawLie(world_->Setup().faults.loseWrite)) {
    transfer->stored = 0;
    ++lostWrites_;
  }
}

std::uint64_t SimDevice::Shorten(std::uint64_t length, bool buffered) {
  const std::uint64_t unit = buffered ? 1 : kSector;
  if (length <= unit) return length;
  return unit * (1 + world_->DeviceRandom().Below((length - 1) / unit));
}

bool SimDevice::HasSettled(const AsyncPortSim* port) const {
  return std::any_of(transfers_.begin(), transfers_.end(), [port](const auto& transfer) {
    return transfer->settled && transfer->port == port;
  });
}

AsyncPort::Completion SimDevice::Collect(const AsyncPortSim* port) {
  std::vector<std::size_t> settled;
  for (std::size_t k = 0; k < transfers_.size(); ++k) {
    if (transfers_[k]->settled && transfers_[k]->port == port) settled.push_back(k);
  }
  const std::size_t chosen = settled[world_->DeviceRandom().Below(settled.size())];
  const std::unique_ptr<Transfer> transfer = std::move(transfers_[chosen]);
  transfers_.erase(transfers_.begin() + static_cast<std::ptrdiff_t>(chosen));
  CheckMemory(*transfer);
  if (transfer->asked.write) {
    MoveOutOfMemory(*transfer, transfer->stored);
  } else {
    MoveIntoMemory(*transfer, transfer->snapshot.size());
  }
  return {transfer->asked.slot, transfer->asked.generation, transfer->outcome, transfer->bytes};
}

void SimDevice::EndHanging() {
  for (const auto& [name, file] : files_) file->hanging = false;
  // A file that was deleted has no name any more.
  for (const auto& transfer : transfers_) {
    if (SimFile* const file = FileOf(transfer->asked)) file->hanging = false;
  }
}

void SimDevice::MoveIntoMemory(const Transfer& transfer, std::uint64_t bytes) {
  CheckMemory(transfer);
  if (bytes == 0) return;
  const unsigned char* from = transfer.snapshot.data();
  for (const MemoryRun& run : transfer.runs) {
    const std::uint64_t length = std::min<std::uint64_t>(run.length, bytes);
    std::memcpy(run.address, from, length);
    from += length;
    bytes -= length;
  }
}

void SimDevice::MoveOutOfMemory(const Transfer& transfer, std::uint64_t bytes) {
  CheckMemory(transfer);
  SimFile* const file = FileOf(transfer.asked);
  if (!file || bytes == 0) return;
  const std::uint64_t end = transfer.asked.offset + bytes;
  if (file->bytes.size() < end) file->bytes.resize(end);
  unsigned char* to = file->bytes.data() + transfer.asked.offset;
  for (const MemoryRun& run : transfer.runs) {
    const std::uint64_t length = std::min<std::uint64_t>(run.length, bytes);
    std::memcpy(to, run.address, length);
    to += length;
    bytes -= length;
  }
}

std::uint64_t SimDevice::GetUsedBytes() const {
  std::uint64_t used = 0;
  for (const auto& [name, file] : files_) used += file->bytes.size();
  return used;
}

void SimDevice::CheckMemory(const Transfer& transfer) const {
  for (const MemoryRun& run : transfer.runs) {
    if (SimPages::WereGivenBack(run.address, run.length)) {
      world_->Fail("the device moves the bytes of slot " + std::to_string(transfer.asked.slot) +
                   " although their memory was given back");
    }
  }
}

}  // namespace Orvane
