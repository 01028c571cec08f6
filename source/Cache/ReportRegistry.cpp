#include "Cache/ReportRegistry.h"

#include "MTInterface.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"

namespace Orvane {
namespace {

constexpr std::uint32_t kLookAgainMs = 1;

}  // namespace

ReportRegistry::ReportRegistry() : lock_(NewCritSec(LockClass::kCacheObject)) {}

void ReportRegistry::Add(Entry* entry, std::uint32_t sourceKey) {
  CritSecLock lock(lock_.get());
  entry->number_ = ++lastNumber_;
  entry->sourceKey_ = sourceKey;
  entry->previous_ = nullptr;
  entry->next_ = first_;
  if (first_) first_->previous_ = entry;
  first_ = entry;
}

void ReportRegistry::Remove(Entry* entry) {
  CritSecLock lock(lock_.get());
  (entry->previous_ ? entry->previous_->next_ : first_) = entry->next_;
  if (entry->next_) entry->next_->previous_ = entry->previous_;
}

// Rarely does anybody have to wait, and never for long: callbacks do not block.
void ReportRegistry::AwaitAllOf(std::uint32_t sourceKey) {
  std::uint64_t last = 0;
  {
    CritSecLock lock(lock_.get());
    last = lastNumber_;
  }
  while (HasAnyUpTo(last, sourceKey)) MTInterface::Sleep(kLookAgainMs);
}

bool ReportRegistry::HasAnyUpTo(std::uint64_t number, std::uint32_t sourceKey) {
  CritSecLock lock(lock_.get());
  for (const Entry* entry = first_; entry; entry = entry->next_) {
    if (entry->sourceKey_ == sourceKey && entry->number_ <= number) return true;
  }
  return false;
}

}  // namespace Orvane
