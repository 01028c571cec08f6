#include "Cache/CacheParts.h"

#include <array>

#include "Cache/Command.h"
#include "MTInterface.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/Cache/CacheParts";

// The numbers that the threads of a cache are started with.
constexpr MTThread::MTPriority kReadPriority = MTThread::kPriorityTimeCritical;
constexpr MTThread::MTPriority kCopyPriority = MTThread::kPriorityAboveNormal;

template <std::size_t kCount>
std::unique_ptr<CommandProcessor> NewProcessor(const std::array<std::uint32_t, kCount>& kinds,
                                               MTThread::MTPriority priority,
                                               LockClass sectionClass) {
  return std::make_unique<CommandProcessor>(kinds.data(), kCount, priority, sectionClass);
}

}  // namespace

CacheParts::CacheParts(Cache* cache, BufferFactory* factory)
    : cancellingSource_(MTInterface::NewAtomicPointer(nullptr)) {
  if (!factory) return;
  try {
    Construct(cache, factory);
  } catch (...) {
    Destroy();
    throw;
  }
}

CacheParts::~CacheParts() {
  Destroy();
}

// The threads last: they use all the rest.
void CacheParts::Construct(Cache* cache, BufferFactory* factory) {
  blocks_ = std::make_unique<CacheBlockList>(cache, factory);
  preReads_ = new PreReadTransactionList(blocks_->GetBlockSize());
  resident_ = std::make_unique<ResidentReader>(blocks_.get(), &statistics_);
  readProcessor_ = NewProcessor(std::to_array<std::uint32_t>({kCommandRead, kCommandReserved}),
                                kReadPriority, LockClass::kReadSection);
  dispatchedReadProcessor_ = NewProcessor(std::to_array<std::uint32_t>({kCommandDispatchedRead}),
                                          kReadPriority, LockClass::kDispatchedReadSection);
  copyProcessor_ = NewProcessor(std::to_array<std::uint32_t>({kCommandDispatchedCopy}),
                                kCopyPriority, LockClass::kCopySection);
  processor_ = std::make_unique<TransactionProcessor>(
      BatchContext{cache, dispatchedReadProcessor_.get(), copyProcessor_.get(), factory, &batches_},
      readProcessor_.get(), blocks_.get(), preReads_, &statistics_);
}

bool CacheParts::AreRunning() const {
  return processor_ && readProcessor_->IsRunning() && dispatchedReadProcessor_->IsRunning() &&
         copyProcessor_->IsRunning();
}

// Each step leaves nothing that could give the ones before it new work: reads make batches, batches
// make copies. Reads from memory, which may become reads, hold the cache: there are none.
void CacheParts::Destroy() {
  if (readProcessor_) readProcessor_->RemoveAll();
  if (dispatchedReadProcessor_) dispatchedReadProcessor_->RemoveAll();
  batches_.OrphanAll();
  if (copyProcessor_) copyProcessor_->RemoveAll();
  readProcessor_.reset();
  dispatchedReadProcessor_.reset();
  copyProcessor_.reset();
  processor_.reset();
  resident_.reset();
  blocks_.reset();
  if (preReads_) preReads_->DecRef(kFile, "Orvane::CacheParts::Destroy", __LINE__);
  preReads_ = nullptr;
}

}  // namespace Orvane
