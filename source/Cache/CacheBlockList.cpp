#include "Cache/CacheBlockList.h"

#include <algorithm>
#include <limits>
#include <new>

#include "Buffer.h"
#include "BufferFactory.h"
#include "Cache/TransactionInternals.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/Cache/CacheBlockList";
constexpr std::uint64_t kBehindAll = std::numeric_limits<std::uint64_t>::max();
constexpr int kStepsUnderTheLock = 128;
// So few threads use blocks at once that two of them seldom meet at a lock.
constexpr std::size_t kMostGroups = 256;
// How much further a transaction looks for hits than it can read ahead by itself.
constexpr std::uint64_t kLooksFurther = 256;

// The range of blocks that [offset, offset + size) meets, first and last, in bytes.
struct BlockRange {
  BlockRange(std::uint64_t offset, std::uint64_t size, std::uint64_t blockSize)
      : first(offset - offset % blockSize) {
    const std::uint64_t atMost = std::numeric_limits<std::uint64_t>::max() - offset;
    const std::uint64_t lastByte = offset + std::min(size - 1, atMost);
    count = (lastByte - first) / blockSize + 1;
  }
  std::uint64_t first;
  std::uint64_t count;
};

}  // namespace

CacheBlockList::CacheBlockList(Cache* cache, BufferFactory* factory)
    : factory_(factory),
      blockSize_(factory->GetBufferSize()),
      lock_(NewCritSec(LockClass::kBlockList)) {
  factory_->AddRef(kFile, "Orvane::CacheBlockList::CacheBlockList", __LINE__);
  try {
    if (blockSize_ > 0) MakeBlocks(cache);
  } catch (...) {
    // Memory is short: with the blocks that there are.
  }
}

CacheBlockList::~CacheBlockList() {
  for (CacheBlock& block : blocks_) {
    Buffer* const buffer = block.GetBuffer();
    block.CancelPendingTransactions(nullptr);
    block.ReleaseBuffer();
    if (buffer) factory_->ReturnBufferToFactory(buffer);
  }
  blocks_.clear();
  factory_->DecRef(kFile, "Orvane::CacheBlockList::~CacheBlockList", __LINE__);
}

void CacheBlockList::MakeBlocks(Cache* cache) {
  const std::size_t count = factory_->GetNumberOfBuffersFree();
  index_.Reserve(count, blockSize_);
  order_.Reserve(count);
  while (Buffer* const buffer = factory_->GetBufferFromFactory()) {
    try {
      order_.Reserve(blocks_.size() + 1);
      CacheBlock& block = blocks_.emplace_back(GetGroupOfNext(cache), buffer);
      Place(&block, 0, 0);
    } catch (...) {
      factory_->ReturnBufferToFactory(buffer);
      throw;
    }
  }
}

// Neighbours, which are mostly used together, are in different groups.
BlockGroup* CacheBlockList::GetGroupOfNext(Cache* cache) {
  if (groups_.size() == blocks_.size() && groups_.size() < kMostGroups) {
    groups_.push_back(std::make_unique<BlockGroup>(cache, this));
  }
  return groups_[blocks_.size() % groups_.size()].get();
}

CacheBlock* CacheBlockList::FindBlockToCopyOutOf(CacheTransaction* transaction, bool* alreadyServed,
                                                 std::uint64_t* cursor) {
  if (blocks_.empty() || !transaction || !transaction->GetSource()) return nullptr;
  const std::uint32_t sourceKey = transaction->GetSource()->GetSourceKey();
  Lock lock(this);
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  if (!TransactionInternals::PeekRange(transaction, 0, &offset, &size)) return nullptr;
  // What is missing in front has to be read first, so a long transaction comes back many times.
  const std::uint64_t begin = offset;
  const std::uint64_t most = blocks_.size() + kLooksFurther;
  while (TransactionInternals::PeekRange(transaction, *cursor, &offset, &size)) {
    const BlockRange range(offset, size, blockSize_);
    for (std::uint64_t k = 0; k < range.count; ++k) {
      const std::uint64_t place = range.first + k * blockSize_;
      if (place > begin && (place - begin) / blockSize_ > most) return nullptr;
      // Past the last block of all there is nothing.
      *cursor = place > kBehindAll - blockSize_ ? kBehindAll : place + blockSize_;
      CacheBlock* const block = index_.FindWithListLock(sourceKey, place);
      if (!block) continue;
      *alreadyServed = false;
      if (block->LockForCopyOutOf(transaction, alreadyServed)) return block;
    }
  }
  return nullptr;
}

CacheBlock* CacheBlockList::FindBlockToReadInto(CacheTransaction* transaction) {
  for (bool goesOn = true; goesOn;) {
    goesOn = false;
    Lock lock(this);
    CacheBlock* const candidate = FindCandidate(&goesOn);
    if (!candidate) continue;
    // One that it refuses because it is wanted later is the first to be free: so are all others.
    return candidate->LockForReadInto(transaction) ? candidate : nullptr;
  }
  return nullptr;
}

// The free block that was used longest ago. Null with *goesOn when there is more to put in order
// than others should be kept waiting for: after hits all over, each block has to be placed anew
// once.
CacheBlock* CacheBlockList::FindCandidate(bool* goesOn) {
  for (int steps = 0; steps < kStepsUnderTheLock; ++steps) {
    CacheBlock* const block = order_.GetFirst();
    if (!block) return nullptr;
    CritSecLock lock(block->group_->lock.get());
    if (block->lockCount_ > 0) {
      block->parked_ = true;
      Park(block);
    } else if (block->isRestamped_) {
      block->Place();
    } else {
      return block;
    }
  }
  *goesOn = true;
  return nullptr;
}

void CacheBlockList::CancelSource(CacheSource* source) {
  const std::uint32_t sourceKey = source->GetSourceKey();
  for (CacheBlock& block : blocks_) {
    if (block.GetSourceKey() == sourceKey) block.CancelPendingTransactions(nullptr);
  }
}

void CacheBlockList::PurgeSource(CacheSource* source) {
  for (CacheBlock& block : blocks_) block.InvalidateBySource(source);
}

void CacheBlockList::InvalidateRange(CacheSource* source, std::uint64_t offset,
                                     std::uint64_t size) {
  NoteForgotten(source->GetSourceKey(), offset, size);
  VisitBlocksOfRange(source->GetSourceKey(), offset, size,
                     [=](CacheBlock* block) { block->InvalidateByRange(source, offset, size); });
}

void CacheBlockList::InvalidateWritten(CacheSource* source, std::uint64_t offset,
                                       std::uint64_t size) {
  const std::uint32_t sourceKey = source->GetSourceKey();
  VisitBlocksOfRange(sourceKey, offset, size, [=, this](CacheBlock* block) {
    Lock lock(this);
    // It may hold something else by now.
    if (block->isIndexed_ && block->sourceKey_ == sourceKey) block->Doom();
  });
  Lock lock(this);
  ++writes_[sourceKey % kWriteCounters];
  auto next = shortBlocks_.lower_bound({sourceKey, nullptr});
  while (next != shortBlocks_.end() && next->first == sourceKey) {
    CacheBlock* const block = next->second;
    ++next;  // the block leaves
    block->Doom();
  }
}

// First: who finds a block gone finds the reason too. A read that waits for a block fails with it.
void CacheBlockList::NoteForgotten(std::uint32_t sourceKey, std::uint64_t offset,
                                   std::uint64_t size) {
  if (size == 0 || blocks_.empty()) return;
  const BlockRange range(offset, size, blockSize_);
  const std::uint64_t lastBlock = range.first + (range.count - 1) * blockSize_;
  const std::uint64_t rest = std::min(blockSize_ - 1, kBehindAll - lastBlock);
  Lock lock(this);
  forgotten_.Add(sourceKey, range.first, lastBlock + rest);
}

bool CacheBlockList::WasForgotten(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size,
                                  std::uint32_t since) {
  if (forgotten_.GetNumber() == since) return false;
  Lock lock(this);
  return forgotten_.HasSince(since, sourceKey, offset, offset + (size - 1));
}

void CacheBlockList::Dump() {
  for (CacheBlock& block : blocks_) block.DumpPendingTransactions();
}

template <typename Visit>
void CacheBlockList::VisitBlocksOfRange(std::uint32_t sourceKey, std::uint64_t offset,
                                        std::uint64_t size, Visit visit) {
  if (size == 0 || blocks_.empty()) return;
  const BlockRange range(offset, size, blockSize_);
  if (range.count > blocks_.size()) {
    for (CacheBlock& block : blocks_) {
      const std::uint64_t place = block.GetSourceOffset() - range.first;
      if (block.GetSourceKey() == sourceKey && place / blockSize_ < range.count) visit(&block);
    }
    return;
  }
  for (std::uint64_t k = 0; k < range.count; ++k) {
    CacheBlock* block = nullptr;
    {
      Lock lock(this);
      block = index_.FindWithListLock(sourceKey, range.first + k * blockSize_);
    }
    if (block) visit(block);
  }
}

CacheBlock* CacheBlockList::FindBlock(std::uint32_t sourceKey, std::uint64_t offset) {
  return index_.Find(sourceKey, offset - offset % blockSize_);
}

bool CacheBlockList::HoldsResident(std::uint32_t sourceKey, std::uint64_t offset,
                                   std::uint64_t size) {
  const std::uint64_t end = offset + size;
  while (offset < end) {
    const std::uint64_t bytes = std::min(end - offset, blockSize_ - offset % blockSize_);
    CacheBlock* const block = FindBlock(sourceKey, offset);
    if (!block || !block->HoldsResident(sourceKey, offset, bytes)) return false;
    offset += bytes;
  }
  return true;
}

std::size_t CacheBlockList::LockResident(std::uint32_t sourceKey, std::uint64_t offset,
                                         std::uint64_t size, ResidentPiece* pieces,
                                         std::size_t most) {
  std::size_t count = 0;
  // A free block that is about to be claimed gets no holder.
  Lock lock(this);
  while (size > 0 && count < most) {
    const std::uint64_t place = offset - offset % blockSize_;
    const std::uint64_t bytes = std::min(size, blockSize_ - (offset - place));
    CacheBlock* const block = index_.FindWithListLock(sourceKey, place);
    const char* const address =
        block ? block->LockForResidentRead(sourceKey, offset, bytes) : nullptr;
    if (!address) {
      while (count > 0) pieces[--count].block->Unlock(CacheSource::kDueASAP);
      return 0;
    }
    pieces[count++] = {block, address, bytes};
    offset += bytes;
    size -= bytes;
  }
  return count;
}

// A transaction whose ranges somebody else took apart may want more of a block it is attached to.
void CacheBlockList::MakeWay(CacheBlock* block, std::uint32_t sourceKey,
                             std::uint64_t sourceOffset) {
  CacheBlock* const other = index_.FindWithListLock(sourceKey, sourceOffset);
  if (other && other != block) other->Doom();
}

std::uint32_t CacheBlockList::Link(CacheBlock* block, std::uint32_t sourceKey,
                                   std::uint64_t sourceOffset) {
  index_.Insert(block, sourceKey, sourceOffset);
  return writes_[sourceKey % kWriteCounters];
}

void CacheBlockList::Unlink(CacheBlock* block) {
  if (block->isShort_) shortBlocks_.erase({block->sourceKey_, block});
  block->isShort_ = false;
  index_.Remove(block);
}

void CacheBlockList::AddShortBlock(CacheBlock* block) {
  try {
    shortBlocks_.insert({block->sourceKey_, block});
    block->isShort_ = true;
  } catch (const std::bad_alloc&) {
    block->Doom();
  }
}

}  // namespace Orvane
