// The container behind SharedObjectList.
#pragma once

#include <cstddef>
#include <memory>

#include "PointerIndex.h"
#include "RankTree.h"

namespace Orvane {

class SharedObject;

// Object pointers in order, each at most once; takes no references. A ring of slots: a member that
// leaves from the middle leaves a hole, and when the ring is full the holes are squeezed out if
// they are many, else the ring grows. Beside it stands an index from object to slot (not for small
// rings, which are searched), and, only once somebody asks for a position in a ring with holes, a
// tree that counts members by slot. Not safe from several threads.
class ObjectSequence {
 public:
  static constexpr std::size_t kNone = PointerIndex::kNone;
  static constexpr std::size_t kMostMembers = kNone / 256;

  // Throws std::length_error "list too long" beyond `most` members.
  explicit ObjectSequence(std::size_t most = kMostMembers);

  std::size_t Count() const { return count_; }
  // The position or kNone.
  std::size_t Find(SharedObject* object);
  // REQUIRES: position < Count().
  SharedObject* At(std::size_t position);

  // False if the object is there already. Throw with nothing changed.
  bool PushBack(SharedObject* object);
  bool PushFront(SharedObject* object);
  // False if the object is not there. Never allocates.
  bool Erase(SharedObject* object);
  // Room for `members` in all, so that pushing allocates nothing up to there. Throws with nothing
  // changed.
  void Reserve(std::size_t members);

 private:
  // Slots are numbered along the ring, modulo its size.
  std::size_t SlotBehind(std::size_t start, std::size_t distance) const;
  std::size_t SlotOf(SharedObject* object) const;
  bool HasHoles() const { return span_ != count_; }
  bool IsIndexed() const;
  // Makes sure that a slot is unused.
  void MakeRoom();
  void Resize(std::size_t capacity);
  void CloseHoles();
  void Place(SharedObject* object, std::size_t slot);
  void TrimHolesAtEnds();
  bool BuildRanks();
  std::size_t WalkToPosition(std::size_t position) const;
  std::size_t WalkToSlot(std::size_t slot) const;

  const std::size_t most_;
  std::unique_ptr<SharedObject*[]> slots_;
  std::size_t capacity_ = 0;  // slots, a power of two or 0
  std::size_t first_ = 0;     // slot of the front member
  std::size_t span_ = 0;      // slots from the front member to the back one, holes included
  std::size_t count_ = 0;
  PointerIndex index_;  // object to slot
  RankTree ranks_;      // empty until needed
};

}  // namespace Orvane
