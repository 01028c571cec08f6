// What a block does for those who copy on their own thread.
#include "Cache/CacheBlock.h"
#include "OSServices/CritSecLock.h"

namespace Orvane {

const char* CacheBlock::LockForResidentRead(std::uint32_t sourceKey, std::uint64_t offset,
                                            std::uint64_t size) {
  CritSecLock lock(group_->lock.get());
  if (!HoldsOf(sourceKey, offset, size)) return nullptr;
  LockInner();
  if (isBufferLocked_) return dataAddress_ + (offset - sourceOffset_);
  --lockCount_;  // nothing was locked
  return nullptr;
}

bool CacheBlock::HoldsResident(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size) {
  CritSecLock lock(group_->lock.get());
  return HoldsOf(sourceKey, offset, size);
}

bool CacheBlock::HoldsResidentLocked(std::uint64_t offset, std::uint64_t size) {
  if (!buffer_ || IsBeingFilled() || doomed_) return false;
  if (state_ != CacheSource::kResultOK && state_ != CacheSource::kResultPartial) return false;
  return offset - sourceOffset_ + size <= validBytes_;
}

}  // namespace Orvane
