// Blocks and transactions without the workers of a cache: tests do by hand what these would do.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Cache/CacheBlock.h"
#include "Cache/CacheBlockList.h"
#include "CacheFixture.h"

namespace Orvane {

// A read on its way, with the memory that it fills. Keeps its own reference to the end.
class Reader {
 public:
  Reader(CacheSource* source, std::uint64_t offset, std::size_t size,
         std::uint32_t dueTime = CacheSource::kDueASAP)
      : target_(size),
        transaction_(new CacheTransaction(source, offset, target_.GetList(), status_, dueTime)) {}

  CacheTransaction* Get() const { return transaction_; }
  operator CacheTransaction*() const {
    return transaction_;
  }  // NOLINT: reads as what it stands for
  CacheTransaction* operator->() const { return transaction_; }
  Target& GetTarget() { return target_; }
  std::string GetBytes(std::size_t count) { return target_.GetBytes(count); }
  bool IsOver() { return !status_->GetReports().empty(); }
  std::vector<Report> GetReports() { return status_->GetReports(); }
  // Waits for it.
  Report GetReport() { return status_->GetOne(); }

 private:
  Target target_;
  AutoRelease<StatusRecorder> status_{new StatusRecorder};
  AutoRelease<CacheTransaction> transaction_;
};

// A pre-read of a range. Belongs to the caller.
CacheTransaction* NewPreRead(CacheSource* source, std::uint64_t offset, std::uint64_t size,
                             std::uint32_t dueTime = CacheSource::kDueASAP);

// Lends one small buffer as often as it was told, so that lists of many blocks cost little.
class OneBufferFactory : public BufferFactory {
 public:
  explicit OneBufferFactory(std::size_t count) : free_(count) {}

  bool Initialize(std::size_t, std::size_t, std::size_t, std::size_t) override { return true; }
  std::size_t GetBufferSize() override { return buffer_->GetSize(); }
  std::size_t GetTotalNumberOfBuffers() override { return free_ + lent_; }
  std::size_t GetNumberOfBuffersFree() override { return free_; }
  std::size_t GetNumberOfBuffersInUse() override { return lent_; }
  Buffer* GetBufferFromFactory() override;
  bool ReturnBufferToFactory(Buffer* buffer) override;

  static constexpr std::size_t kSize = 16;

 protected:
  ~OneBufferFactory() override = default;

 private:
  std::size_t free_;
  std::size_t lent_ = 0;
  AutoRelease<HeapBuffer> buffer_{new HeapBuffer(kSize)};
};

class BlockFixture : public CacheFixture {
 protected:
  static constexpr std::uint64_t kHourMs = 3600000;

  void TearDown() override;

  // Replaces the list by one that belongs to no cache.
  CacheBlockList* MakeList(std::size_t blocks);
  // The cheapest list of many blocks, of OneBufferFactory::kSize bytes each.
  CacheBlockList* MakeLongList(std::size_t blocks);

  // On the clock of due times; `ms` may be negative.
  static std::uint32_t FromNow(std::int64_t ms);
  // Puts what the file holds there into the block, as a source would.
  static void PutBytes(CacheBlock* block, const std::string& contents);
  // A read of one block: the claim of the oldest free block, its fill and the copy. Answers the
  // block, which is free again; null if there was none.
  CacheBlock* Fill(MemorySource* source, std::uint64_t offset,
                   std::uint32_t dueTime = CacheSource::kDueASAP);
  // A claim of the oldest free block that is taken back: which one it was, or null. It is empty
  // then.
  CacheBlock* TakeOldest(MemorySource* source, std::uint64_t offset);
  // Attaches a reader to the block that holds what it wants; null if there is none.
  CacheBlock* Attach(CacheTransaction* reader, bool* alreadyServed = nullptr);
  // What a reader gets of what is in the blocks, null for nothing.
  bool IsHit(MemorySource* source, std::uint64_t offset, std::size_t size,
             const std::string& expected);

  AutoRelease<BufferFactoryHeap> factory_{new BufferFactoryHeap};
  std::unique_ptr<CacheBlockList> list_;
};

}  // namespace Orvane
