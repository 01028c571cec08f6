#include "SortedObjectList.h"

#include <iterator>
#include <stdexcept>

#include "OSServices/LockClass.h"

namespace Orvane {

// The list's lock, if it has one.
class ORVANE_SCOPED_CAPABILITY SortedObjectList::Hold {
 public:
  // The analysis cannot follow a lock that may be missing.
  explicit Hold(const std::unique_ptr<MTCritSec>& lock)
      ORVANE_ACQUIRE(lock) ORVANE_NO_THREAD_SAFETY_ANALYSIS : lock_(lock.get()) {
    if (lock_) lock_->Enter();
  }
  ~Hold() ORVANE_RELEASE() ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    if (lock_) lock_->Leave();
  }
  Hold(const Hold&) = delete;
  Hold& operator=(const Hold&) = delete;

 private:
  MTCritSec* const lock_;
};

// Goes from member to member; made inside of a Hold, which the analysis does not see here. The
// entry on which it stands is not freed, so that the finder may take out any member.
class SortedObjectList::Walk {
 public:
  explicit Walk(SortedObjectList* list) ORVANE_NO_THREAD_SAFETY_ANALYSIS : list_(list) {
    ++list_->depth_;
  }
  ~Walk() ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    Leave();
    if (--list_->depth_ == 0 && list_->needsSort_) list_->SortLocked();
  }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  // To the first member, then to the next. False behind the last; not to be called again then.
  bool Next() ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    Map& members = list_->members_;
    Map::iterator next = stands_ ? std::next(at_) : members.begin();
    Leave();
    while (next != members.end() && !next->second.object) ++next;
    if (next == members.end()) return false;
    at_ = next;
    stands_ = true;
    ++at_->second.walks;
    return true;
  }
  Map::iterator At() const { return at_; }
  SortedObject* Object() const { return at_->second.object; }

 private:
  void Leave() ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    if (stands_ && --at_->second.walks == 0 && !at_->second.object) list_->Recycle(at_);
    stands_ = false;
  }

  SortedObjectList* const list_;
  Map::iterator at_;
  bool stands_ = false;
};

// Takes the owner off a member while a removing search checks it, and puts it back.
class SortedObjectList::Disowned {
 public:
  Disowned(SortedObjectList* list, Map::iterator entry)
      : list_(list),
        entry_(entry),
        object_(entry->second.object),
        outerSearch_(entry->second.isChecked) {
    object_->owner_ = nullptr;
    entry_->second.isChecked = true;
  }
  ~Disowned() {
    entry_->second.isChecked = outerSearch_;
    if (object_ && entry_->second.object) PutBack();
  }
  Disowned(const Disowned&) = delete;
  Disowned& operator=(const Disowned&) = delete;

  void LeaveOff() { object_ = nullptr; }

 private:
  void PutBack() {
    if (object_->owner_) object_->isRepeated_ = true;  // the finder has added it
    if (outerSearch_) return;                          // which puts it back
    object_->owner_ = list_;
    object_->entry_ = entry_;
  }

  SortedObjectList* const list_;
  const Map::iterator entry_;
  SortedObject* object_;
  const bool outerSearch_;  // another one checks the same member, and its finder searches
};

SortedObject::~SortedObject() = default;

std::uint64_t SortedObject::GetSortTie() {
  return 0;
}

bool SortedObject::Resort() {
  while (SortedObjectList* const owner = owner_) {
    if (owner->ResortMember(this)) return true;
  }
  return false;
}

SortedObjectFinder::~SortedObjectFinder() = default;

SortedObjectList::SortedObjectList(bool ascending, bool threadSafe)
    : SortedObjectList(ascending, threadSafe, kMostMembers) {}

SortedObjectList::SortedObjectList(bool ascending, bool threadSafe, std::size_t most)
    : lock_(threadSafe ? NewCritSec(LockClass::kSortedList) : nullptr),
      most_(most),
      members_(SortedObjectEntries::Order(ascending)),
      sorted_(SortedObjectEntries::Order(ascending)),
      spares_(SortedObjectEntries::Order(ascending)) {}

SortedObjectList::~SortedObjectList() = default;

void SortedObjectList::AddObject(SortedObject* object) {
  if (!object) return;
  const Hold hold(lock_);
  if (object->owner_ && object->owner_ != this) return;
  if (count_ >= most_) throw std::length_error("list too long");
  if (spares_.empty()) spares_.emplace(Rank{}, SortedObjectEntries::Entry{});

  Map::node_type node = spares_.extract(spares_.begin());
  if (depth_ > 0) {
    node.key() = Rank{--lastParked_, 0, 0};
    needsSort_ = true;
  } else {
    node.key() = RankOf(object);
  }
  node.mapped().object = object;
  if (object->owner_) object->isRepeated_ = true;
  object->owner_ = this;
  Insert(std::move(node));
  ++count_;
}

void SortedObjectList::Iterate(SortedObjectFinder* finder, bool forceSort) {
  const Hold hold(lock_);
  Walk walk(this);
  if (forceSort) needsSort_ = true;
  if (!finder) return;
  while (walk.Next()) {
    if (finder->Check(walk.Object())) return;
  }
}

SortedObject* SortedObjectList::FindAndRemove(SortedObjectFinder* finder) {
  if (!finder) return nullptr;
  const Hold hold(lock_);
  Walk walk(this);
  while (walk.Next()) {
    SortedObject* const object = walk.Object();
    if (CheckAndRemove(walk.At(), finder)) return object;
  }
  return nullptr;
}

bool SortedObjectList::RemoveAllMatching(SortedObjectFinder* finder) {
  if (!finder) return false;
  const Hold hold(lock_);
  Walk walk(this);
  bool removed = false;
  while (walk.Next()) {
    if (CheckAndRemove(walk.At(), finder)) removed = true;
  }
  return removed;
}

SortedObject* SortedObjectList::RemoveFirst() {
  const Hold hold(lock_);
  const Map::iterator first = First();
  if (first == members_.end()) return nullptr;
  SortedObject* const object = first->second.object;
  object->owner_ = nullptr;
  Remove(first);
  return object;
}

SortedObject* SortedObjectList::GetFirst() {
  const Hold hold(lock_);
  const Map::iterator first = First();
  return first == members_.end() ? nullptr : first->second.object;
}

void SortedObjectList::Sort() {
  Iterate(nullptr, /*forceSort=*/true);
}

std::size_t SortedObjectList::GetCount() {
  const Hold hold(lock_);
  return count_;
}

SortedObjectList::Rank SortedObjectList::RankOf(SortedObject* object) {
  return Rank{Rank::kInOrder, object->GetSortKey(), object->GetSortTie()};
}

bool SortedObjectList::ResortMember(SortedObject* object) {
  const Hold hold(lock_);
  if (object->owner_ != this) return false;
  if (depth_ > 0) {
    needsSort_ = true;
    return true;
  }
  Map::node_type node = members_.extract(Find(object));
  node.key() = RankOf(object);
  Insert(std::move(node));
  return true;
}

// The first one of several. The owner's list always has one.
SortedObjectList::Map::iterator SortedObjectList::Find(SortedObject* object) {
  if (!object->isRepeated_) return object->entry_;
  Map::iterator entry = members_.begin();
  while (entry->second.object != object) ++entry;
  return entry;
}

SortedObjectList::Map::iterator SortedObjectList::First() {
  Map::iterator first = members_.begin();
  while (first != members_.end() && !first->second.object) ++first;
  return first;
}

// As near to the end as its rank allows is behind its equals, and next to no work when keys arrive
// in order.
void SortedObjectList::Insert(Map::node_type node) {
  SortedObject* const object = node.mapped().object;
  object->entry_ = members_.insert(members_.end(), std::move(node));
}

bool SortedObjectList::CheckAndRemove(Map::iterator entry, SortedObjectFinder* finder) {
  {
    Disowned disowned(this, entry);
    if (!finder->Check(entry->second.object)) return false;
    disowned.LeaveOff();
  }
  // Unless the finder has done it.
  if (entry->second.object) Remove(entry);
  return true;
}

void SortedObjectList::Remove(Map::iterator entry) {
  entry->second.object = nullptr;
  --count_;
  if (entry->second.walks == 0) Recycle(entry);
}

void SortedObjectList::Recycle(Map::iterator entry) {
  if (spares_.size() >= kMostSpares) {
    members_.erase(entry);
    return;
  }
  spares_.insert(members_.extract(entry));
}

void SortedObjectList::SortLocked() {
  while (!members_.empty()) {
    Map::node_type node = members_.extract(members_.begin());
    SortedObject* const object = node.mapped().object;
    node.key() = RankOf(object);
    const Map::iterator entry = sorted_.insert(sorted_.end(), std::move(node));
    // An entry that was left behind may be that of another list's member.
    if (object->owner_ == this) object->entry_ = entry;
  }
  members_.swap(sorted_);
  needsSort_ = false;
}

}  // namespace Orvane
