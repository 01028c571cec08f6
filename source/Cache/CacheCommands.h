// What the three processors of a cache run.
#pragma once

#include "Cache/Command.h"

namespace Orvane {

class CacheBlock;
class CacheTransaction;

// Holds a reference on its transaction, and knows whether it was loaded anew since.
class TransactionCommand : public CacheCommand {
 public:
  CacheTransaction* GetTransaction() const { return transaction_; }
  std::uint32_t GetGeneration() const { return generation_; }

 protected:
  TransactionCommand(CommandKind kind, Cache* cache, CacheTransaction* transaction);
  ~TransactionCommand() override;
  void FailTransaction();

  CacheTransaction* const transaction_;  // one reference
  const std::uint32_t generation_;
};

// Serves a transaction as far as it goes now. Cancelled, it fails it.
class ReadCommand : public TransactionCommand {
 public:
  ReadCommand(Cache* cache, CacheTransaction* transaction);
  bool Execute() override;
  void Finish(bool cancelled) override;
  bool IsPreReadAt(std::uint64_t offset) const;

 private:
  // Set at construction: the transaction may have been loaded anew since.
  const bool isPreRead_;
  const std::uint64_t offset_;
};

// Hands a batch of missed blocks to its source. To be run again while the source is busy; an answer
// that is not pending ends the batch with it.
class DispatchedReadCommand : public TransactionCommand {
 public:
  DispatchedReadCommand(Cache* cache, CacheTransaction* transaction);
  bool Execute() override;
  void Finish(bool cancelled) override;
  // A busy source says nothing about others.
  const void* GetResource() const override { return GetSource(); }
};

// Serves the transactions that wait for a block. The block outlives it.
class DispatchedCopyCommand : public CacheCommand {
 public:
  DispatchedCopyCommand(std::uint32_t dueTime, Cache* cache, CacheSource* source,
                        CacheBlock* block);
  // For a block that is found later.
  DispatchedCopyCommand(Cache* cache, CacheTransaction* transaction);
  void SetBlock(CacheBlock* block) { block_ = block; }
  bool Execute() override;
  void Finish(bool cancelled) override;

 private:
  // The key rather than what the block holds now: that may be another source's already.
  const std::uint32_t sourceKey_;
  CacheBlock* block_;
};

// Destroys a command that came to no use.
struct FinishUnused {
  void operator()(Command* command) const { command->Finish(/*cancelled=*/false); }
};

}  // namespace Orvane
