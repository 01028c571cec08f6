// The files of a world and the device that moves their bytes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "OSServices/AsyncPort.h"
#include "OSServices/HostFile.h"

namespace Orvane {

class AsyncPortSim;
class SimWorld;

struct SimFile {
  std::vector<unsigned char> bytes;
  bool buffered = false;
  bool hanging = false;
};

// An open file, or one that could not be opened.
class HostFileSim : public HostFile {
 public:
  HostFileSim(std::shared_ptr<SimFile> file, bool forRead, bool forWrite)
      : file_(std::move(file)),
        forRead_(forRead),
        forWrite_(forWrite),
        buffered_(file_ && file_->buffered) {}
  bool IsUnbuffered() const override { return !buffered_; }
  SimFile* GetFile() const { return file_.get(); }
  bool Allows(bool write) const { return write ? forWrite_ : forRead_; }

 protected:
  ~HostFileSim() override = default;

 private:
  const std::shared_ptr<SimFile> file_;  // null: every transfer fails
  const bool forRead_;
  const bool forWrite_;
  const bool buffered_;
};

// A transfer ends in two steps. First its outcome is settled and the device moves a part of the
// bytes; it moves them all, once more, when the completion is collected: until then the memory is
// the device's, as on a real one.
class SimDevice {
 public:
  explicit SimDevice(SimWorld* world) : world_(world) {}

  // Files.
  void Create(const std::string& name, std::vector<unsigned char> content);
  std::shared_ptr<SimFile> Find(const std::string& name) const;
  bool Delete(const std::string& name);
  void SetCapacity(std::uint64_t bytes) { capacity_ = bytes; }
  void SetLatency(std::uint64_t micros) { latency_ = std::min(micros, kMostLatency); }
  std::uint64_t GetLostWrites() const { return lostWrites_; }
  std::uint64_t GetShortTransfers() const { return shortTransfers_; }

  // Transfers of the port.
  void Start(AsyncPortSim* port, const AsyncPort::Transfer& transfer);
  void GiveUp(std::uint32_t slot, std::uint32_t generation);
  bool HasReadyTransfer() const;
  // When the next transfer can end; kSimNever: none, before something else happens.
  std::uint64_t GetNextReadyTime() const;
  // Settles any one of those that are ready.
  void CompleteOne();
  // The completion of any one that is settled; false if there is none.
  bool HasSettled(const AsyncPortSim* port) const;
  AsyncPort::Completion Collect(const AsyncPortSim* port);
  void EndHanging();
  std::size_t GetTransfersInFlight() const { return transfers_.size(); }

 private:
  struct Transfer {
    AsyncPortSim* port;
    AsyncPort::Transfer asked;
    std::vector<MemoryRun> runs;
    std::uint64_t length;
    std::uint64_t readyAt;
    bool cancelled = false;
    bool settled = false;
    bool lost = false;
    AsyncPort::Outcome outcome = AsyncPort::Outcome::kFailed;
    std::uint64_t bytes = 0;              // of the completion
    std::uint64_t stored = 0;             // of a write, also of one that failed
    std::vector<unsigned char> snapshot;  // what a read delivers
  };

  bool IsReady(const Transfer& transfer) const;
  void Settle(Transfer* transfer);
  void SettleRead(Transfer* transfer, const SimFile& file);
  void SettleWrite(Transfer* transfer, const SimFile& file);
  void CutShort(Transfer* transfer);
  std::uint64_t Shorten(std::uint64_t length, bool buffered);
  void MoveIntoMemory(const Transfer& transfer, std::uint64_t bytes);
  void MoveOutOfMemory(const Transfer& transfer, std::uint64_t bytes);
  std::uint64_t GetUsedBytes() const;
  void CheckMemory(const Transfer& transfer) const;

  SimWorld* const world_;
  std::map<std::string, std::shared_ptr<SimFile>> files_;
  std::vector<std::unique_ptr<Transfer>> transfers_;
  std::uint64_t capacity_ = ~std::uint64_t{0};
  static constexpr std::uint64_t kMostLatency = std::uint64_t{1} << 62;  // sums do not overflow
  std::uint64_t latency_ = 300;                                          // microseconds
  std::uint64_t lostWrites_ = 0;
  std::uint64_t shortTransfers_ = 0;
};

}  // namespace Orvane
