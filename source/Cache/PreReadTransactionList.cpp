#include "Cache/PreReadTransactionList.h"

#include <limits>

#include "Cache/CacheClock.h"
#include "Cache/TransactionInternals.h"
#include "CoreClasses/ModifyLock.h"
#include "OSServices/ReportScope.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/Cache/PreReadTransactionList";
constexpr std::uint64_t kKeptAfterDueMs = 2000;

}  // namespace

PreReadTransactionList::PreReadTransactionList(std::uint64_t blockSize) : blockSize_(blockSize) {}

PreReadTransactionList::~PreReadTransactionList() {
  while (!entries_.empty()) Erase(entries_.begin());
}

void PreReadTransactionList::AlignRange(std::uint64_t& offset, std::uint64_t& size) const {
  if (size > std::numeric_limits<std::uint64_t>::max() - offset) {
    size = std::numeric_limits<std::uint64_t>::max() - offset;
  }
  if (blockSize_ <= 1) return;
  const std::uint64_t before = offset % blockSize_;
  offset -= before;
  size += before;
  const std::uint64_t over = size % blockSize_;
  if (over == 0) return;
  const std::uint64_t missing = blockSize_ - over;
  // The last block of all may not be there as a whole.
  size = missing > std::numeric_limits<std::uint64_t>::max() - offset - size ? size - over
                                                                             : size + missing;
}

bool PreReadTransactionList::AddPreReadTransaction(CacheTransaction* transaction) {
  CacheSource* const source = transaction->GetSource();
  if (!source || source->GetSourceKey() == CacheSource::kInvalidKey) return false;
  ModifyLock lock(this);
  const Key key(source->GetSourceKey(), transaction->GetOffset(), transaction->GetSize());
  const std::uint32_t due = transaction->GetDueTime();
  const std::uint64_t dueMs = due == 0 ? 0 : CacheTime::Now().Extend(due);
  const auto expiry = expiryOrder_.emplace(dueMs + kKeptAfterDueMs, key);
  Entries::iterator entry;
  bool isNew = false;
  try {
    std::tie(entry, isNew) = entries_.try_emplace(key, Entry{transaction, expiry});
  } catch (...) {
    expiryOrder_.erase(expiry);
    throw;
  }
  transaction->AddRef(kFile, "Orvane::PreReadTransactionList::AddPreReadTransaction", __LINE__);
  if (!isNew) {
    ReportScope::Release(entry->second.transaction, kFile,
                         "Orvane::PreReadTransactionList::AddPreReadTransaction", __LINE__);
    expiryOrder_.erase(entry->second.expiry);
    entry->second = Entry{transaction, expiry};
  }
  TransactionInternals::ReleaseSource(transaction);
  return true;
}

CacheTransaction* PreReadTransactionList::FindPendingPreRead(CacheTransaction* transaction) {
  ModifyLock lock(this);
  ExpireOld();
  if (!transaction->GetSource()) return nullptr;
  const auto entry = entries_.find(Key(transaction->GetSource()->GetSourceKey(),
                                       transaction->GetOffset(), transaction->GetSize()));
  if (entry == entries_.end()) return nullptr;
  CacheTransaction* const pending = entry->second.transaction;
  if (pending->GetResult(nullptr) == CacheSource::kResultPending) return pending;
  // Its block was filled, or failed to be; if it is not there any more it may be read again.
  Erase(entry);
  return nullptr;
}

void PreReadTransactionList::CompletePreReadsForRange(CacheTransaction* transaction) {
  if (!transaction->GetSource() || blockSize_ == 0) return;
  ModifyLock lock(this);
  if (entries_.empty()) return;
  const std::uint32_t sourceKey = transaction->GetSource()->GetSourceKey();
  std::uint64_t offset = transaction->GetOffset();
  std::uint64_t size = transaction->GetSize();
  AlignRange(offset, size);
  // Over the entries, not the range, which may be far longer.
  auto entry = entries_.lower_bound(Key(sourceKey, offset, 0));
  while (entry != entries_.end() && std::get<0>(entry->first) == sourceKey &&
         std::get<1>(entry->first) - offset < size) {
    const auto next = std::next(entry);
    const bool isOneOfTheBlocks = (std::get<1>(entry->first) - offset) % blockSize_ == 0 &&
                                  std::get<2>(entry->first) == blockSize_;
    if (isOneOfTheBlocks) CompleteAndErase(entry);
    entry = next;
  }
}

void PreReadTransactionList::RemoveSource(CacheSource* source) {
  const std::uint32_t sourceKey = source->GetSourceKey();
  ModifyLock lock(this);
  auto entry = entries_.lower_bound(Key(sourceKey, 0, 0));
  while (entry != entries_.end() && std::get<0>(entry->first) == sourceKey) {
    const auto next = std::next(entry);
    entry->second.transaction->SetResult(CacheSource::kResultFailed);
    Erase(entry);
    entry = next;
  }
}

std::size_t PreReadTransactionList::GetCount() {
  ModifyLock lock(this);
  return entries_.size();
}

void PreReadTransactionList::ExpireOld() {
  if (expiryOrder_.empty()) return;
  const std::uint64_t nowMs = CacheTime::Now().Milli();
  while (!expiryOrder_.empty() && expiryOrder_.begin()->first < nowMs) {
    CompleteAndErase(entries_.find(expiryOrder_.begin()->second));
  }
}

void PreReadTransactionList::CompleteAndErase(Entries::iterator entry) {
  CacheTransaction* const transaction = entry->second.transaction;
  transaction->Complete(std::get<1>(entry->first), std::get<2>(entry->first),
                        CacheSource::kResultOK);
  Erase(entry);
}

void PreReadTransactionList::Erase(Entries::iterator entry) {
  CacheTransaction* const transaction = entry->second.transaction;
  expiryOrder_.erase(entry->second.expiry);
  entries_.erase(entry);
  ReportScope::Release(transaction, kFile, "Orvane::PreReadTransactionList::Erase", __LINE__);
}

}  // namespace Orvane
