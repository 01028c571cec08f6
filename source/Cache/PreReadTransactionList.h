// The pre-reads that are under way or were lately, so that none is made twice.
#pragma once

#include <cstdint>
#include <map>
#include <tuple>

#include "SharedObject.h"

namespace Orvane {

class CacheSource;
class CacheTransaction;

// Holds one reference on each transaction from its addition until 2000 ms after its due time, or
// until it is replaced, completed or removed. A listed transaction has given up its source: the
// source may go while the list remembers it. A due time of 0 counts as such: the entry expires once
// the clock has passed 2000 ms.
//
// Guarded by the object's own lock; transactions are completed inside it, which runs no callback:
// pre-reads have none.
class PreReadTransactionList : public SharedObject {
 public:
  // Bytes.
  explicit PreReadTransactionList(std::uint64_t blockSize);

  // Extends the range outward to whole blocks; a range that would pass 2^64 is cut.
  void AlignRange(std::uint64_t& offset, std::uint64_t& size) const;
  // False without a source. Replaces an entry for the same range.
  bool AddPreReadTransaction(CacheTransaction* transaction);
  // Completes and removes what has expired; then looks for a pre-read of the very same range. The
  // answer may be gone at once: it is not to be touched, only compared with null.
  CacheTransaction* FindPendingPreRead(CacheTransaction* transaction);
  // Completes and removes the pre-reads of the blocks of the transaction's range: it is being read.
  void CompletePreReadsForRange(CacheTransaction* transaction);
  // Fails and removes the pre-reads of a source.
  void RemoveSource(CacheSource* source);
  std::size_t GetCount();

 protected:
  ~PreReadTransactionList() override;

 private:
  using Key = std::tuple<std::uint32_t, std::uint64_t, std::uint64_t>;  // source key, offset, size
  using ExpiryOrder = std::multimap<std::uint64_t, Key>;                // milliseconds
  struct Entry {
    CacheTransaction* transaction;  // one reference
    ExpiryOrder::iterator expiry;
  };
  using Entries = std::map<Key, Entry>;

  void CompleteAndErase(Entries::iterator entry);
  void Erase(Entries::iterator entry);
  void ExpireOld();

  const std::uint64_t blockSize_;
  Entries entries_;
  ExpiryOrder expiryOrder_;
};

}  // namespace Orvane
