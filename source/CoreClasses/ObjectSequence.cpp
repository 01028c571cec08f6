#include "ObjectSequence.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <stdexcept>

namespace Orvane {
namespace {

constexpr std::size_t kSmallestRing = 4;
constexpr std::size_t kLargestRingWithoutIndex = 16;

// Its address stands in a slot that holds no member; it is that of no object.
constexpr std::uint64_t kHoleMark = 0;

SharedObject* Hole() {
  return static_cast<SharedObject*>(const_cast<void*>(static_cast<const void*>(&kHoleMark)));
}

}  // namespace

ObjectSequence::ObjectSequence(std::size_t most) : most_(most) {}

std::size_t ObjectSequence::Find(SharedObject* object) {
  const std::size_t slot = SlotOf(object);
  if (slot == kNone) return kNone;
  if (!HasHoles()) return (slot - first_) & (capacity_ - 1);
  if (!BuildRanks()) return WalkToSlot(slot);
  const std::size_t before = ranks_.CountBefore(slot);
  const std::size_t beforeFirst = ranks_.CountBefore(first_);
  return slot >= first_ ? before - beforeFirst : count_ - beforeFirst + before;
}

SharedObject* ObjectSequence::At(std::size_t position) {
  if (!HasHoles() || position == 0) return slots_[SlotBehind(first_, position)];
  if (!BuildRanks()) return slots_[WalkToPosition(position)];
  const std::size_t rank = ranks_.CountBefore(first_) + position;
  return slots_[ranks_.SlotOfRank(rank < count_ ? rank : rank - count_)];
}

bool ObjectSequence::PushBack(SharedObject* object) {
  if (SlotOf(object) != kNone) return false;
  MakeRoom();
  Place(object, SlotBehind(first_, span_));
  return true;
}

bool ObjectSequence::PushFront(SharedObject* object) {
  if (SlotOf(object) != kNone) return false;
  MakeRoom();
  first_ = SlotBehind(first_, capacity_ - 1);
  Place(object, first_);
  return true;
}

bool ObjectSequence::Erase(SharedObject* object) {
  const std::size_t slot = SlotOf(object);
  if (slot == kNone) return false;
  slots_[slot] = Hole();
  --count_;
  if (IsIndexed()) index_.Erase(object);
  if (!ranks_.IsEmpty()) ranks_.Vacate(slot);
  TrimHolesAtEnds();
  return true;
}

void ObjectSequence::Reserve(std::size_t members) {
  if (members > most_) throw std::length_error("list too long");
  // Twice the members: a full ring is then at least half holes, and is squeezed, not grown.
  const std::size_t wanted = std::max(kSmallestRing, std::bit_ceil(2 * members));
  if (std::max(wanted, capacity_) > kLargestRingWithoutIndex) index_.Reserve(members);
  if (wanted > capacity_) Resize(wanted);
}

std::size_t ObjectSequence::SlotBehind(std::size_t start, std::size_t distance) const {
  return (start + distance) & (capacity_ - 1);
}

std::size_t ObjectSequence::SlotOf(SharedObject* object) const {
  if (IsIndexed()) return index_.Find(object);
  for (std::size_t i = 0; i < span_; ++i) {
    if (slots_[SlotBehind(first_, i)] == object) return SlotBehind(first_, i);
  }
  return kNone;
}

bool ObjectSequence::IsIndexed() const {
  return capacity_ > kLargestRingWithoutIndex;
}

void ObjectSequence::MakeRoom() {
  if (count_ >= most_) throw std::length_error("list too long");
  if (span_ == capacity_) {
    if (count_ < capacity_ / 2) {
      CloseHoles();
    } else {
      Resize(std::max(kSmallestRing, 2 * capacity_));
    }
  }
  if (IsIndexed()) index_.Reserve(count_ + 1);
}

void ObjectSequence::Resize(std::size_t capacity) {
  std::unique_ptr<SharedObject*[]> slots(new SharedObject*[capacity]);
  if (capacity > kLargestRingWithoutIndex) index_.Reserve(count_ + 1);
  CloseHoles();
  for (std::size_t i = 0; i < count_; ++i) slots[i] = slots_[SlotBehind(first_, i)];
  slots_ = std::move(slots);
  capacity_ = capacity;
  first_ = 0;
  index_.Clear();
  for (std::size_t i = 0; IsIndexed() && i < count_; ++i) index_.Insert(slots_[i], i);
}

void ObjectSequence::CloseHoles() {
  ranks_.Forget();
  index_.Clear();
  std::size_t kept = 0;
  for (std::size_t i = 0; i < span_; ++i) {
    SharedObject* const object = slots_[SlotBehind(first_, i)];
    if (object == Hole()) continue;
    const std::size_t slot = SlotBehind(first_, kept++);
    slots_[slot] = object;
    if (IsIndexed()) index_.Insert(object, slot);
  }
  span_ = count_;
}

void ObjectSequence::Place(SharedObject* object, std::size_t slot) {
  slots_[slot] = object;
  ++count_;
  ++span_;
  if (IsIndexed()) index_.Insert(object, slot);
  if (!ranks_.IsEmpty()) ranks_.Occupy(slot);
}

void ObjectSequence::TrimHolesAtEnds() {
  while (span_ > 0 && slots_[first_] == Hole()) {
    first_ = SlotBehind(first_, 1);
    --span_;
  }
  while (span_ > 0 && slots_[SlotBehind(first_, span_ - 1)] == Hole()) --span_;
}

bool ObjectSequence::BuildRanks() {
  if (!ranks_.IsEmpty()) return true;
  if (!ranks_.Reset(capacity_)) return false;
  for (std::size_t i = 0; i < span_; ++i) {
    const std::size_t slot = SlotBehind(first_, i);
    if (slots_[slot] != Hole()) ranks_.Occupy(slot);
  }
  return true;
}

std::size_t ObjectSequence::WalkToPosition(std::size_t position) const {
  std::size_t slot = first_;
  for (std::size_t left = position; left > 0; --left) {
    do slot = SlotBehind(slot, 1);
    while (slots_[slot] == Hole());
  }
  return slot;
}

std::size_t ObjectSequence::WalkToSlot(std::size_t slot) const {
  std::size_t position = 0;
  for (std::size_t i = first_; i != slot; i = SlotBehind(i, 1)) {
    if (slots_[i] != Hole()) ++position;
  }
  return position;
}

}  // namespace Orvane
