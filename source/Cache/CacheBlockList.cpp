#include "Cache/CacheBlockList.h"

#include <algorithm>
#include <limits>
#include <new>

#include "Buffer.h"
#include "BufferFactory.h"
#include "Cache/CacheBlockFinders.h"
#include "Cache/TransactionInternals.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/Cache/CacheBlockList";
constexpr std::uint64_t kBehindAll = std::numeric_limits<std::uint64_t>::max();
constexpr int kStepsUnderTheLock = 128;
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
      lock_(NewCritSec(LockClass::kBlockList)),
      candidates_(/*ascending=*/true, /*threadSafe=*/false) {
  factory_->AddRef(kFile, "Orvane::CacheBlockList::CacheBlockList", __LINE__);
  try {
    if (blockSize_ > 0) MakeBlocks(cache);
  } catch (...) {
    // Memory is short: with the blocks that there are.
  }
}

CacheBlockList::~CacheBlockList() {
  while (candidates_.RemoveFirst()) {
  }
  for (std::unique_ptr<CacheBlock>& block : blocks_) {
    Buffer* const buffer = block->GetBuffer();
    block->CancelPendingTransactions(nullptr);
    block->ReleaseBuffer();
    if (buffer) factory_->ReturnBufferToFactory(buffer);
  }
  blocks_.clear();
  factory_->DecRef(kFile, "Orvane::CacheBlockList::~CacheBlockList", __LINE__);
}

void CacheBlockList::MakeBlocks(Cache* cache) {
  const std::size_t count = factory_->GetNumberOfBuffersFree();
  index_.Reserve(count);
  blocks_.reserve(count);
  while (Buffer* const buffer = factory_->GetBufferFromFactory()) {
    try {
      if (blocks_.size() == blocks_.capacity()) blocks_.reserve(2 * blocks_.size() + 1);
      auto block = std::make_unique<CacheBlock>(cache, this, buffer);
      candidates_.AddObject(block.get());
      blocks_.push_back(std::move(block));
    } catch (...) {
      factory_->ReturnBufferToFactory(buffer);
      throw;
    }
  }
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
      CacheBlock* const block = index_.Find(sourceKey, place);
      if (!block) continue;
      CopyOutOfBlockFinder finder(transaction);
      if (!finder.Check(block)) continue;
      *alreadyServed = finder.IsAlreadyServed();
      return block;
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
    ReadIntoBlockFinder finder(transaction);
    finder.Check(candidate);
    return finder.GetBlock();
  }
  return nullptr;
}

// The free block that was used longest ago. Null with *goesOn when there is more to put in order
// than others should be kept waiting for: after hits all over, each block has to be placed anew
// once.
CacheBlock* CacheBlockList::FindCandidate(bool* goesOn) {
  for (int steps = 0; steps < kStepsUnderTheLock; ++steps) {
    auto* const block = static_cast<CacheBlock*>(candidates_.GetFirst());
    if (!block || block->placedStamp_ == kBehindAll) return nullptr;
    CritSecLock lock(block->lock_.get());
    if (block->lockCount_ > 0) {
      block->parked_ = true;
      block->placedStamp_ = kBehindAll;
    } else if (block->placedStamp_ != block->stamp_ || block->placedTie_ != block->tie_) {
      block->placedStamp_ = block->stamp_;
      block->placedTie_ = block->tie_;
    } else {
      return block;
    }
    block->Resort();
  }
  *goesOn = true;
  return nullptr;
}

void CacheBlockList::CancelSource(CacheSource* source) {
  CancelFinder finder(source);
  for (const std::unique_ptr<CacheBlock>& block : blocks_) finder.Check(block.get());
}

void CacheBlockList::PurgeSource(CacheSource* source) {
  InvalidateFinder finder(source);
  for (const std::unique_ptr<CacheBlock>& block : blocks_) finder.Check(block.get());
}

void CacheBlockList::InvalidateRange(CacheSource* source, std::uint64_t offset,
                                     std::uint64_t size) {
  InvalidateFinder finder(source, offset, size);
  VisitBlocksOfRange(source->GetSourceKey(), offset, size,
                     [&finder](CacheBlock* block) { finder.Check(block); });
}

void CacheBlockList::InvalidateWritten(CacheSource* source, std::uint64_t offset,
                                       std::uint64_t size) {
  const std::uint32_t sourceKey = source->GetSourceKey();
  VisitBlocksOfRange(sourceKey, offset, size, [=, this](CacheBlock* block) {
    Lock lock(this);
    // It may hold something else by now.
    if (block->indexLink_.isLinked && block->indexLink_.sourceKey == sourceKey) block->Doom();
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

void CacheBlockList::Dump() {
  DumpFinder finder;
  for (const std::unique_ptr<CacheBlock>& block : blocks_) finder.Check(block.get());
}

template <typename Visit>
void CacheBlockList::VisitBlocksOfRange(std::uint32_t sourceKey, std::uint64_t offset,
                                        std::uint64_t size, Visit visit) {
  if (size == 0 || blocks_.empty()) return;
  const BlockRange range(offset, size, blockSize_);
  if (range.count > blocks_.size()) {
    for (const std::unique_ptr<CacheBlock>& block : blocks_) {
      const std::uint64_t place = block->GetSourceOffset() - range.first;
      if (block->GetSourceKey() == sourceKey && place / blockSize_ < range.count) {
        visit(block.get());
      }
    }
    return;
  }
  for (std::uint64_t k = 0; k < range.count; ++k) {
    CacheBlock* block = nullptr;
    {
      Lock lock(this);
      block = index_.Find(sourceKey, range.first + k * blockSize_);
    }
    if (block) visit(block);
  }
}

bool CacheBlockList::HoldsResident(std::uint32_t sourceKey, std::uint64_t offset,
                                   std::uint64_t size) {
  const std::uint64_t end = offset + size;
  Lock lock(this);
  while (offset < end) {
    const std::uint64_t place = offset - offset % blockSize_;
    const std::uint64_t bytes = std::min(end - offset, blockSize_ - (offset - place));
    CacheBlock* const block = index_.Find(sourceKey, place);
    if (!block || !block->HoldsResident(offset, bytes)) return false;
    offset += bytes;
  }
  return true;
}

std::size_t CacheBlockList::LockResident(std::uint32_t sourceKey, std::uint64_t offset,
                                         std::uint64_t size, ResidentPiece* pieces,
                                         std::size_t most) {
  std::size_t count = 0;
  Lock lock(this);
  while (size > 0 && count < most) {
    const std::uint64_t place = offset - offset % blockSize_;
    const std::uint64_t bytes = std::min(size, blockSize_ - (offset - place));
    CacheBlock* const block = index_.Find(sourceKey, place);
    const char* const address = block ? block->LockForResidentRead(offset, bytes) : nullptr;
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
  CacheBlock* const other = index_.Find(sourceKey, sourceOffset);
  if (other && other != block) other->Doom();
}

std::uint32_t CacheBlockList::Link(CacheBlock* block, std::uint32_t sourceKey,
                                   std::uint64_t sourceOffset) {
  index_.Insert(block, sourceKey, sourceOffset);
  return writes_[sourceKey % kWriteCounters];
}

void CacheBlockList::Unlink(CacheBlock* block) {
  if (block->indexLink_.isShort) shortBlocks_.erase({block->indexLink_.sourceKey, block});
  index_.Remove(block);
}

void CacheBlockList::AddShortBlock(CacheBlock* block) {
  try {
    shortBlocks_.insert({block->indexLink_.sourceKey, block});
    block->indexLink_.isShort = true;
  } catch (const std::bad_alloc&) {
    block->Doom();
  }
}

}  // namespace Orvane
