// The searches over the blocks of a cache. Each is made on the stack for one search and checks one
// block after the other.
#pragma once

#include <cstdint>

#include "Cache/CacheBlock.h"
#include "CoreClasses/SortedObjectList.h"

namespace Orvane {

// Attaches a transaction to the first block that has something for it. List lock held.
class CopyOutOfBlockFinder : public SortedObjectFinder {
 public:
  explicit CopyOutOfBlockFinder(CacheTransaction* transaction) : transaction_(transaction) {}
  bool Check(SortedObject* object) override {
    CacheBlock* const block = static_cast<CacheBlock*>(object);
    if (block->LockForCopyOutOf(transaction_, &alreadyServed_)) block_ = block;
    return block_ != nullptr;
  }
  bool IsAlreadyServed() const { return alreadyServed_; }

 private:
  CacheTransaction* const transaction_;
  CacheBlock* block_ = nullptr;
  bool alreadyServed_ = false;
};

// Claims the first block that is free for a transaction. List lock held.
class ReadIntoBlockFinder : public SortedObjectFinder {
 public:
  explicit ReadIntoBlockFinder(CacheTransaction* transaction) : transaction_(transaction) {}
  bool Check(SortedObject* object) override {
    CacheBlock* const block = static_cast<CacheBlock*>(object);
    if (block->LockForReadInto(transaction_)) block_ = block;
    return block_ != nullptr;
  }
  CacheBlock* GetBlock() const { return block_; }

 private:
  CacheTransaction* const transaction_;
  CacheBlock* block_ = nullptr;
};

// Makes blocks forget what they hold of a source, or of a range of it. No lock held: transactions
// fail.
class InvalidateFinder : public SortedObjectFinder {
 public:
  explicit InvalidateFinder(CacheSource* source)
      : withRange_(false), source_(source), offset_(0), size_(0) {}
  InvalidateFinder(CacheSource* source, std::uint64_t offset, std::uint64_t size)
      : withRange_(true), source_(source), offset_(offset), size_(size) {}
  bool Check(SortedObject* object) override {
    CacheBlock* const block = static_cast<CacheBlock*>(object);
    if (withRange_) {
      block->InvalidateByRange(source_, offset_, size_);
    } else {
      block->InvalidateBySource(source_);
    }
    return false;
  }

 private:
  const bool withRange_;
  CacheSource* const source_;
  const std::uint64_t offset_;
  const std::uint64_t size_;
};

// Fails the transactions that wait for blocks of a source. No lock held.
class CancelFinder : public SortedObjectFinder {
 public:
  explicit CancelFinder(CacheSource* source) : sourceKey_(source->GetSourceKey()) {}
  bool Check(SortedObject* object) override {
    CacheBlock* const block = static_cast<CacheBlock*>(object);
    if (block->GetSourceKey() == sourceKey_) block->CancelPendingTransactions(nullptr);
    return false;
  }

 private:
  const std::uint32_t sourceKey_;
};

// Looks at the result of every transaction that waits, for a debugger to stop at.
class DumpFinder : public SortedObjectFinder {
 public:
  bool Check(SortedObject* object) override {
    static_cast<CacheBlock*>(object)->DumpPendingTransactions();
    return false;
  }
};

}  // namespace Orvane
