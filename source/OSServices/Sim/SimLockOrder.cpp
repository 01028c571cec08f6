#include "OSServices/Sim/SimLockOrder.h"

#include <array>
#include <cstdint>

#include "OSServices/LockClass.h"
#include "OSServices/Sim/MTPrimitivesSim.h"

namespace Orvane {
namespace {

// Bit k of entered[c]: class k was entered while one of class c was held.
std::array<std::uint32_t, kLockClassCount> entered{};
std::uint32_t met = 0;  // classes
static_assert(kLockClassCount <= 32, "a set of classes is one word");

constexpr std::size_t Index(LockClass lockClass) {
  return static_cast<std::size_t>(lockClass);
}
constexpr std::uint32_t Bit(LockClass lockClass) {
  return std::uint32_t{1} << Index(lockClass);
}

bool MayNest(LockClass lockClass) {
  return lockClass == LockClass::kSharedObjectModify || lockClass == LockClass::kSortedList ||
         lockClass == LockClass::kOther;
}

bool LeadsTo(LockClass from, LockClass to) {
  std::uint32_t reached = Bit(from);
  for (std::uint32_t before = 0; before != reached;) {
    before = reached;
    for (std::size_t k = 0; k < Index(LockClass::kOther); ++k) {
      if (before & (std::uint32_t{1} << k)) reached |= entered[k];
    }
  }
  return (reached & Bit(to)) != 0;
}

void LearnEdge(SimWorld* world, const MTCritSecSim* outer, const MTCritSecSim* inner) {
  const LockClass from = outer->GetClass();
  const LockClass to = inner->GetClass();
  const bool sameClass = from == to;
  const bool known = !sameClass && from != LockClass::kOther && to != LockClass::kOther;
  if ((sameClass && !MayNest(from)) || (known && LeadsTo(to, from))) {
    world->Fail(DescribeSimLock(inner) + " is entered inside " + DescribeSimLock(outer) +
                (sameClass ? ", which is of the same class" : "; elsewhere it is the outer one"));
  }
  entered[Index(from)] |= Bit(to);
}

}  // namespace

void SimLockOrder::BeforeEnter(SimWorld* world, const SimThread* thread, const MTCritSecSim* lock) {
  const SimHeldLocks& held = thread->held;
  met |= Bit(lock->GetClass());
  for (std::size_t k = 0; k < held.count; ++k) {
    const LockClass outer = held.locks[k]->GetClass();
    const bool seen = (entered[Index(outer)] & Bit(lock->GetClass())) != 0;
    if (!seen || outer == lock->GetClass()) LearnEdge(world, held.locks[k], lock);
  }
  if (held.count == SimHeldLocks::kMost) world->Fail("a thread is inside too many locks");
}

void SimLockOrder::AfterLeave(SimThread* thread, const MTCritSecSim* left) {
  SimHeldLocks& held = thread->held;
  std::size_t k = held.count;
  while (held.locks[--k] != left) {
  }
  for (--held.count; k < held.count; ++k) held.locks[k] = held.locks[k + 1];
}

std::string SimLockOrder::ToText() {
  std::string text;
  for (std::size_t from = 0; from < Index(LockClass::kOther); ++from) {
    if (!(met & (std::uint32_t{1} << from))) continue;
    text += std::string(Orvane::ToText(static_cast<LockClass>(from))) + "\n";
    for (std::size_t to = 0; to < Index(LockClass::kOther); ++to) {
      if (!(entered[from] & (std::uint32_t{1} << to))) continue;
      text += std::string(Orvane::ToText(static_cast<LockClass>(from))) + " -> " +
              Orvane::ToText(static_cast<LockClass>(to)) + "\n";
    }
  }
  return text;
}

}  // namespace Orvane
