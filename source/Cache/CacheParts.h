// What a cache is made of.
#pragma once

#include <memory>

#include "BufferFactory.h"
#include "Cache/BatchRegistry.h"
#include "Cache/CacheBlockList.h"
#include "Cache/CacheStatistics.h"
#include "Cache/CancelMutex.h"
#include "Cache/CommandProcessor.h"
#include "Cache/PreReadTransactionList.h"
#include "Cache/ReportRegistry.h"
#include "Cache/ResidentReader.h"
#include "Cache/TransactionProcessor.h"
#include "MTPrimitives.h"

namespace Orvane {

// Owned by one cache. Constructed whole or not at all; without a factory it has no blocks and no
// threads.
class CacheParts {
 public:
  CacheParts(Cache* cache, BufferFactory* factory);
  // Fails what is queued and what is under way; then ends the threads.
  ~CacheParts();

  // Whether reads can be served.
  bool CanRead() const { return blocks_ && blocks_->GetBlockCount() > 0 && AreRunning(); }

  CacheStatistics statistics_;
  CancelMutex cancelMutex_;
  const std::unique_ptr<MTAtomicPointer> cancellingSource_;  // not owned; null when idle
  BatchRegistry batches_;
  ReportRegistry reports_;
  std::unique_ptr<CommandProcessor> readProcessor_;
  std::unique_ptr<CommandProcessor> dispatchedReadProcessor_;
  std::unique_ptr<CommandProcessor> copyProcessor_;
  PreReadTransactionList* preReads_ = nullptr;  // one reference
  std::unique_ptr<CacheBlockList> blocks_;
  std::unique_ptr<TransactionProcessor> processor_;
  std::unique_ptr<ResidentReader> resident_;

 private:
  bool AreRunning() const;
  void Construct(Cache* cache, BufferFactory* factory);
  void Destroy();
};

}  // namespace Orvane
