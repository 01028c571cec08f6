// Objects kept in the order of a key that each computes for itself, searched by finders.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>

#include "MTPrimitives.h"

namespace Orvane {

class SortedObject;
class SortedObjectList;

// Where a member stands and what a list knows of it.
namespace SortedObjectEntries {

struct Rank {
  // All members that are in order have this one; smaller ones stand before them, whatever the key.
  static constexpr std::uint64_t kInOrder = ~std::uint64_t{0};

  std::uint64_t group = kInOrder;
  std::uint64_t key = 0;
  std::uint64_t tie = 0;
};

class Order {
 public:
  explicit Order(bool ascending) : ascending_(ascending) {}
  bool operator()(const Rank& a, const Rank& b) const {
    if (a.group != b.group) return a.group < b.group;
    if (a.key != b.key) return (a.key < b.key) == ascending_;
    return a.tie != b.tie && (a.tie < b.tie) == ascending_;
  }

 private:
  bool ascending_;
};

struct Entry {
  SortedObject* object = nullptr;  // null: has left while a walk stood here
  std::size_t walks = 0;           // that stand here
  bool isChecked = false;          // by a removing search, the owner is off meanwhile
};

using Map = std::multimap<Rank, Entry, Order>;

}  // namespace SortedObjectEntries

// Take it out of its list before it is destroyed; the destructor does not.
//
// Its owner changes only under the lock of the list that it enters or leaves.
class SortedObject {
 public:
  virtual ~SortedObject();
  // Smaller keys stand in front in an ascending list, greater ones in a descending list. Called
  // with the list's lock held, when the object is added and whenever it is resorted or sorted; in
  // between the key may change without harm to the list.
  // REQUIRES of both: does not throw and does not use the list.
  virtual std::uint64_t GetSortKey() = 0;
  // Orders objects with equal keys, in the direction of the list; of those that are equal in this
  // too the first one to come stays in front. 0 unless overridden.
  virtual std::uint64_t GetSortTie();
  // Moves the object to the place of its present key, behind its equals; during a walk only notes
  // that the list is to be sorted at its end. False if it is in no list, which is so too while a
  // removing search of its list checks it. Never allocates, takes logarithmic time.
  // REQUIRES: the list lives, and meanwhile no other thread adds the object, takes it out or
  // searches its list with a removing operation: the owner is read to find the lock.
  bool Resort();

 protected:
  SortedObject() = default;
  SortedObject(const SortedObject&) = delete;
  SortedObject& operator=(const SortedObject&) = delete;

 private:
  friend class SortedObjectList;

  // Guarded by the lock of the owner, or of the list that is about to become it.
  SortedObjectList* owner_ = nullptr;
  SortedObjectEntries::Map::iterator entry_;  // in the owner; meaningless once isRepeated_
  bool isRepeated_ = false;                   // has been, perhaps, in the lists more than once
};

// Made for one search. Runs with the list's lock held, on the thread that searches.
class SortedObjectFinder {
 public:
  virtual ~SortedObjectFinder();
  // True: the object sought. May use the list that is searched in every way, and may delete the
  // object when it answers true to an operation that removes.
  virtual bool Check(SortedObject* object) = 0;
};

// Keeps plain pointers; the members' lifetime is the caller's business. A member belongs to one
// list, its owner, from AddObject until a removing operation hands it out.
//
// Walks are the calls of a finder, by Iterate, FindAndRemove and RemoveAllMatching. A finder may
// itself walk, add, remove, resort and sort. What is added during a walk is parked at the front,
// the newest first, where only walks that begin later see it; resorting and sorting are put off.
// When the outermost walk ends, by an exception too, the list is sorted if one of these happened: a
// stable sort by the present keys of what stands there then, the parked ones in front. Members that
// are taken out go at once, and the walks around go on with the next one.
//
// While FindAndRemove or RemoveAllMatching checks a member it has no owner, so that the finder may
// add it to another list; it gets its owner back when the answer is false or Check throws. When the
// answer is true the object is not touched any more.
// KEPT: a finder that adds it to another list and answers false leaves it in both; its owner is the
// list that was searched.
//
// A thread-safe list is safe from any thread: every operation holds the list's recursive lock for
// its whole length, with the finders' calls and the sort at the end. Any other list takes no lock
// and belongs to one thread.
//
// Cost: adding, resorting and removing the first member are logarithmic, keys that arrive in order
// constant; a search is linear up to its match. Only adding allocates, and not as long as it takes
// the place of one of the last 64 members that left.
class SortedObjectList {
 public:
  // Ascending: the smallest key first, else the greatest.
  SortedObjectList(bool ascending, bool threadSafe);
  // KEPT: the members are not touched, their owner stays this list. None may be resorted or added
  // to a list again.
  virtual ~SortedObjectList();

  // Puts the object behind its equals, or parks it. Nothing happens for null and for a member of
  // another list. Throws when memory is short, and std::length_error "list too long", with nothing
  // changed.
  // KEPT: a member of this list is added again and has two entries; one that leaves clears the
  // owner for both. Do not do it: resorting such an object takes linear time from then on.
  // REQUIRES: no other thread uses the object as a member of another list meanwhile.
  void AddObject(SortedObject* object);
  // Shows the members to the finder in order until it answers true. Sorts then if forced to, with
  // a null finder too.
  void Iterate(SortedObjectFinder* finder, bool forceSort);
  // Takes out and answers the first member for which the finder answers true; null if there is
  // none and for a null finder.
  SortedObject* FindAndRemove(SortedObjectFinder* finder);
  // Takes out all members for which the finder answers true; whether there was one. False for a
  // null finder.
  bool RemoveAllMatching(SortedObjectFinder* finder);
  // Takes out and answers the first member, or null.
  SortedObject* RemoveFirst();
  // The first member or null; it stays.
  SortedObject* GetFirst();
  // Sorts by the present keys, stable; during a walk at its end. Never allocates.
  void Sort();
  std::size_t GetCount();

 protected:
  // Takes no more than `most` members.
  SortedObjectList(bool ascending, bool threadSafe, std::size_t most);
  SortedObjectList(const SortedObjectList&) = delete;
  SortedObjectList& operator=(const SortedObjectList&) = delete;

 private:
  friend class SortedObject;
  using Map = SortedObjectEntries::Map;
  using Rank = SortedObjectEntries::Rank;
  class Hold;
  class Walk;
  class Disowned;

  static constexpr std::size_t kMostMembers = ~std::size_t{0} / 256;
  static constexpr std::size_t kMostSpares = 64;

  static Rank RankOf(SortedObject* object);
  // False if this is not the owner.
  bool ResortMember(SortedObject* object);
  Map::iterator Find(SortedObject* object) ORVANE_REQUIRES(lock_);
  Map::iterator First() ORVANE_REQUIRES(lock_);
  void Insert(Map::node_type node) ORVANE_REQUIRES(lock_);
  bool CheckAndRemove(Map::iterator entry, SortedObjectFinder* finder) ORVANE_REQUIRES(lock_);
  void Remove(Map::iterator entry) ORVANE_REQUIRES(lock_);
  void Recycle(Map::iterator entry) ORVANE_REQUIRES(lock_);
  void SortLocked() ORVANE_REQUIRES(lock_);

  const std::unique_ptr<MTCritSec> lock_;  // null unless thread-safe
  const std::size_t most_;
  Map members_ ORVANE_GUARDED_BY(lock_);  // and, during a walk, entries that a walk stands on
  Map sorted_ ORVANE_GUARDED_BY(lock_);   // empty but for the length of a sort
  Map spares_ ORVANE_GUARDED_BY(lock_);   // nodes for members to come
  std::size_t count_ ORVANE_GUARDED_BY(lock_) = 0;
  std::size_t depth_ ORVANE_GUARDED_BY(lock_) = 0;  // walks within walks
  bool needsSort_ ORVANE_GUARDED_BY(lock_) = false;
  std::uint64_t lastParked_ ORVANE_GUARDED_BY(lock_) = Rank::kInOrder;  // counts down
};

}  // namespace Orvane
