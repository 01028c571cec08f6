// The base of everything that data can be read from, through a cache or directly, and the result
// codes of every transfer.
#pragma once

#include <cstdint>

#include "Export.h"
#include "SharedObject.h"

namespace Orvane {

class Cache;
class CacheTransaction;
class SharedObjectList;

// Holds a process-unique key, an alignment requirement (the page size) and at most one cache, for
// life. Fields are written by the constructor and by UseCache only: safe from any thread once the
// source has been bound to its cache.
class ORVANE_EXPORT CacheSource : public SharedObject {
 public:
  // The numbers are binding.
  enum Result_t : std::int32_t {
    kResultBusy = -6,          // no free request slot now; try again after a completion
    kResultError = -5,         // general failure: host I/O failed, waited too long in the queue
    kResultUnknown = -4,       // reserved
    kResultNotSupported = -3,  // not open for this direction, or not possible here
    kResultOutOfRange = -2,    // outside the data: the end of the file was reached
    kResultFailed = -1,        // failed or cancelled
    kResultNone = 0,           // no result
    kResultOK = 1,             // all bytes were transferred
    kResultPartial = 2,        // the data ended early: fewer bytes than asked
    kResultPending = 3,        // started; the outcome comes through the callback
    kResultLockFailed = 4,     // a destination buffer could not be locked
  };

  static constexpr std::uint32_t kInvalidKey = 0;  // no source has it
  static constexpr std::uint32_t kDueASAP = 0;     // due time: as soon as possible

  // True if adjacent cache blocks may be read with one list read.
  virtual bool CanGatherReads() = 0;
  // Bytes.
  virtual std::uint64_t GetAlignmentRequirement();
  // Binds the source to `cache` and takes a reference on it. False, with nothing changed, for null
  // and when a cache is attached already: a source keeps its cache for life. Not locked: call it
  // before the source is shared between threads.
  virtual bool UseCache(Cache* cache);
  // The attached cache or null; no reference is added.
  virtual Cache* GetCache();
  // Rounds `offset` (bytes) down to a multiple of the alignment requirement.
  virtual std::uint64_t Align(std::uint64_t offset);
  // Tells sources apart; never kInvalidKey.
  virtual std::uint32_t GetSourceKey();

  // Clips the request [offset, offset + size) to [rangeOffset, rangeOffset + rangeSize), in bytes.
  // False, with the request untouched, if they do not meet; a range that is merely touched does not
  // meet. A request of size 0 that starts inside meets with size 0.
  // KEPT: one of size 0 at the very end of the range becomes the whole range.
  // REQUIRES: the ends of both are below 2^64. Otherwise the answer may be wrong, and what it clips
  // to as well.
  static bool GetRangeIntersection(std::uint64_t& offset, std::uint64_t& size,
                                   std::uint64_t rangeOffset, std::uint64_t rangeSize);

 protected:
  friend class Cache;
  friend class CacheTransaction;

  CacheSource();
  ~CacheSource() override;
  CacheSource(const CacheSource&) = default;
  CacheSource& operator=(const CacheSource&) = default;

  // What a cache asks of a source. All but the abstract ones refuse unless overridden.
  virtual Result_t ReadTransaction(CacheTransaction* transaction) = 0;
  virtual void CancelAllTransactions() = 0;
  virtual void PreReadTransaction(CacheTransaction* transaction);
  virtual bool SupportsPreReadTransactions();

 private:
  virtual Result_t ProcessReadTransaction(CacheTransaction* transaction);
  virtual bool CompleteReadTransaction(CacheTransaction* transaction, Result_t result);
  virtual bool CancelTransactionsBeingProcessed();

  std::uint32_t sourceKey_;
  SharedObjectList* transactionList_;  // one reference
  Cache* cache_;                       // one reference, or null
  std::uint64_t alignment_;            // bytes
};

}  // namespace Orvane
