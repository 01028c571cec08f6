#include "CacheSource.h"

#include "Cache.h"
#include "MTInterface.h"
#include "PhysMemInterface.h"
#include "SharedObjectList.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/Cache/CacheSource";

}  // namespace

CacheSource::CacheSource()
    : sourceKey_(MTInterface::GetProcessUniqueID()),
      transactionList_(new SharedObjectList),
      cache_(nullptr),
      alignment_(PhysMemInterface::GetPageSize()) {}

CacheSource::~CacheSource() {
  transactionList_->DecRef(kFile, "Orvane::CacheSource::~CacheSource", 29);
  if (cache_) cache_->DecRef(kFile, "Orvane::CacheSource::~CacheSource", 30);
}

std::uint64_t CacheSource::GetAlignmentRequirement() {
  return alignment_;
}

bool CacheSource::UseCache(Cache* cache) {
  if (cache_ || !cache) return false;
  cache_ = cache;
  cache_->AddRef(kFile, "Orvane::CacheSource::UseCache", 38);
  return true;
}

Cache* CacheSource::GetCache() {
  return cache_;
}

std::uint64_t CacheSource::Align(std::uint64_t offset) {
  return alignment_ < 2 ? offset : offset - offset % alignment_;
}

std::uint32_t CacheSource::GetSourceKey() {
  return sourceKey_;
}

bool CacheSource::GetRangeIntersection(std::uint64_t& offset, std::uint64_t& size,
                                       std::uint64_t rangeOffset, std::uint64_t rangeSize) {
  const std::uint64_t end = offset + size;
  const std::uint64_t rangeEnd = rangeOffset + rangeSize;
  if (offset >= rangeOffset && offset < rangeEnd) {
    if (end > rangeEnd) size = rangeEnd - offset;
    return true;
  }
  if (end > rangeOffset && end <= rangeEnd) {
    offset = rangeOffset;
    size = end - rangeOffset;
    return true;
  }
  if (offset >= rangeOffset || end < rangeEnd) return false;
  offset = rangeOffset;
  size = rangeSize;
  return true;
}

void CacheSource::PreReadTransaction(CacheTransaction*) {}

bool CacheSource::SupportsPreReadTransactions() {
  return false;
}

CacheSource::Result_t CacheSource::ProcessReadTransaction(CacheTransaction*) {
  return kResultNotSupported;
}

bool CacheSource::CompleteReadTransaction(CacheTransaction*, Result_t) {
  return false;
}

bool CacheSource::CancelTransactionsBeingProcessed() {
  return true;
}

}  // namespace Orvane
