// Serves a transaction from the blocks of a cache, or has the blocks read.
#pragma once

#include <cstdint>
#include <memory>

#include "Cache/DispatchedReadCallback.h"

namespace Orvane {

class CacheBlockList;
class CacheStatistics;
class CacheTransaction;
class CommandProcessor;
class PreReadTransactionList;
class ReadCommand;

// The work of the read processor's thread. Owned by the cache, as is what it works with.
class TransactionProcessor {
 public:
  TransactionProcessor(const BatchContext& context, CommandProcessor* readProcessor,
                       CacheBlockList* blocks, PreReadTransactionList* preReads,
                       CacheStatistics* statistics);

  // True when everything of the transaction is served or under way, false when no block was free
  // for the rest. REQUIRES: the transaction is borrowed; called by a command of the read processor.
  bool Process(CacheTransaction* transaction);

 private:
  class OpenBatch;

  bool ServeHits(CacheTransaction* transaction);
  void ProcessPreReads(CacheTransaction* first);
  void ProcessPreRead(CacheTransaction* transaction, OpenBatch* batch);
  bool ReadMisses(CacheTransaction* transaction);

  const BatchContext context_;
  CommandProcessor* const readProcessor_;
  CacheBlockList* const blocks_;
  PreReadTransactionList* const preReads_;
  CacheStatistics* const statistics_;
};

}  // namespace Orvane
