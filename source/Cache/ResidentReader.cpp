#include "Cache/ResidentReader.h"

#include <algorithm>

#include "Buffer.h"
#include "BufferList.h"
#include "Cache/CacheBlockList.h"
#include "Cache/CacheClock.h"
#include "Cache/CacheStatistics.h"
#include "OSServices/PlainBuffer.h"

namespace Orvane {
namespace {

// Of one block; more would keep others from the lock for too long.
constexpr std::uint64_t kMostBytesInLock = 4096;

// Blocks are held so many at a time: under one hold of the list's lock, without an allocation.
constexpr std::size_t kHeldAtOnce = 16;

// Holds on blocks, for as long as their bytes are copied.
class ResidentHolds {
 public:
  explicit ResidentHolds(std::uint32_t dueTime) : dueTime_(dueTime) {}
  ~ResidentHolds() {
    if (count_ == 0) return;
    const CacheTime now = CacheTime::Now();
    for (std::size_t k = 0; k < count_; ++k) pieces_[k].block->Unlock(dueTime_, now);
  }
  ResidentHolds(const ResidentHolds&) = delete;
  ResidentHolds& operator=(const ResidentHolds&) = delete;

  // Those of the start of the range; false if one of them does not have its piece.
  bool Lock(CacheBlockList* blocks, std::uint32_t sourceKey, std::uint64_t offset,
            std::uint64_t size) {
    count_ = blocks->LockResident(sourceKey, offset, size, pieces_, kHeldAtOnce);
    return count_ > 0;
  }
  std::size_t GetCount() const { return count_; }
  const CacheBlockList::ResidentPiece& operator[](std::size_t k) const { return pieces_[k]; }

 private:
  const std::uint32_t dueTime_;
  CacheBlockList::ResidentPiece pieces_[kHeldAtOnce];
  std::size_t count_ = 0;
};

// As much as there is room for behind `place`; answers how much that was, 0 if it failed.
std::size_t CopySome(const char* data, std::uint64_t bytes, std::size_t place, Buffer* target) {
  std::size_t moved = 0;
  // CopyInto only reads the source.
  const Buffer::BufferResult_t result =
      target->CopyInto(const_cast<char*>(data), static_cast<std::size_t>(bytes), place, &moved);
  return result == Buffer::kBufferOK ? moved : 0;
}

// To `place` of the buffer or list.
bool Copy(const char* data, std::uint64_t bytes, std::uint64_t place, Buffer* buffer,
          BufferList* list) {
  while (bytes > 0) {
    std::size_t at = static_cast<std::size_t>(place);
    Buffer* const target = buffer ? buffer : list->GetBufferAtOffset(at, &at, nullptr);
    const std::size_t moved = target ? CopySome(data, bytes, at, target) : 0;
    if (moved == 0) return false;
    data += moved;
    bytes -= moved;
    place += moved;
  }
  return true;
}

}  // namespace

ResidentReader::ResidentReader(CacheBlockList* blocks, CacheStatistics* statistics)
    : blocks_(blocks), statistics_(statistics) {}

bool ResidentReader::Read(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size,
                          Buffer* buffer, BufferList* list, std::uint32_t dueTime) {
  const std::uint64_t blockSize = blocks_->GetBlockSize();
  if (size <= kMostBytesInLock && offset % blockSize + size <= blockSize &&
      ReadSmall(sourceKey, offset, size, buffer, list, dueTime)) {
    return true;
  }
  // Nothing is copied in vain for the lack of a block further on.
  const bool isOneRun = (offset % blockSize + size - 1) / blockSize < kHeldAtOnce;
  if (!isOneRun && !blocks_->HoldsResident(sourceKey, offset, size)) return false;
  std::uint64_t done = 0;
  std::size_t blocks = 0;
  while (done < size) {
    ResidentHolds holds(dueTime);
    if (!holds.Lock(blocks_, sourceKey, offset + done, size - done)) return false;
    for (std::size_t k = 0; k < holds.GetCount(); ++k) {
      if (!Copy(holds[k].address, holds[k].bytes, done, buffer, list)) return false;
      done += holds[k].bytes;
    }
    blocks += holds.GetCount();
  }
  statistics_->Add(CacheStatistics::kHits, static_cast<std::uint32_t>(blocks));
  return true;
}

// Into a plain buffer: nothing of an application's runs in the lock.
bool ResidentReader::ReadSmall(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size,
                               Buffer* buffer, BufferList* list, std::uint32_t dueTime) {
  Buffer* const target = buffer ? buffer : list->GetBuffer(0);
  if (!target || target->GetSize() < size || !IsPlainBuffer(target)) return false;
  CacheBlock* const block = blocks_->FindBlock(sourceKey, offset);
  const auto copy = [=](const char* data) { return CopySome(data, size, 0, target) == size; };
  if (!block || !block->CopyResident(sourceKey, offset, size, dueTime, copy)) return false;
  statistics_->Add(CacheStatistics::kHits, 1);
  return true;
}

}  // namespace Orvane
