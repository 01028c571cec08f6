#include "LockOrderChecker.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <utility>

namespace Orvane {
namespace {

constexpr std::uint32_t Bit(LockClass lockClass) {
  return std::uint32_t{1} << static_cast<unsigned>(lockClass);
}

constexpr std::uint32_t Bits(std::initializer_list<LockClass> classes) {
  std::uint32_t bits = 0;
  for (const LockClass lockClass : classes) bits |= Bit(lockClass);
  return bits;
}

constexpr std::size_t Index(LockClass lockClass) {
  return static_cast<std::size_t>(lockClass);
}

// The order: a class is entered only while none at or behind its place is held. Classes that are
// not listed have no place; for them there is only the graph.
constexpr LockClass kOrder[] = {
    LockClass::kCacheCancel,            //
    LockClass::kReadSection,            //
    LockClass::kDispatchedReadSection,  //
    LockClass::kCopySection,            //
    LockClass::kHandlerCancel,          //
    LockClass::kBatchTracker,           //
    LockClass::kBatch,                  //
    LockClass::kBlockList,              //
    LockClass::kBlock,                  //
    LockClass::kTracker,                //
};

// While a leaf is held nothing else is entered, but for the classes in `exceptions`.
struct Leaf {
  LockClass lockClass;
  std::uint32_t exceptions;
};
constexpr Leaf kLeaves[] = {
    {LockClass::kBlockIndex, 0},
    {LockClass::kCacheObject, 0},
    {LockClass::kCommandQueue, 0},
    {LockClass::kHandlerSlot, 0},
    {LockClass::kStatistics, 0},
    {LockClass::kBatchRegistry, 0},
    {LockClass::kPool, 0},
    // A waiting pre-read is looked at through its tracker.
    {LockClass::kPreReadList, Bits({LockClass::kPreReadTracker, LockClass::kTracker})},
};

// Two sections of such a class may be held at once.
constexpr std::uint32_t kMayNest = Bits({
    LockClass::kSharedObjectModify,  // the application's business: the library takes none
    LockClass::kSortedList,          // a finder may add to another list
    LockClass::kOther,               // unrelated sections
});

int PlaceOf(LockClass lockClass) {
  int place = 0;
  for (const LockClass ordered : kOrder) {
    if (ordered == lockClass) return place;
    ++place;
  }
  return -1;
}

bool IsForbiddenUnderLeaf(LockClass held, LockClass entered) {
  for (const Leaf& leaf : kLeaves) {
    if (leaf.lockClass == held) return (leaf.exceptions & Bit(entered)) == 0;
  }
  return false;
}

bool IsAgainstOrder(LockClass held, LockClass entered) {
  return PlaceOf(entered) >= 0 && PlaceOf(held) > PlaceOf(entered);
}

const testing::TestInfo* CurrentTest() {
  return testing::UnitTest::GetInstance()->current_test_info();
}

std::string TestToText(const testing::TestInfo* test) {
  if (!test) return "outside of any test";
  return std::string(test->test_suite_name()) + "." + test->name();
}

// What a thread holds, of all checkers. Trivial, so that asking for it costs nothing.
struct HeldSection {
  const LockOrderChecker* checker;
  const void* section;
  LockClass lockClass;
  unsigned entries;
};
struct HeldSections {
  static constexpr std::size_t kMost = 64;
  HeldSection sections[kMost];  // in the order in which they were entered
  std::size_t count;

  HeldSection* Find(const void* section) {
    for (std::size_t k = count; k-- > 0;) {
      if (sections[k].section == section) return &sections[k];
    }
    return nullptr;
  }
  void Remove(HeldSection* section) {
    --count;
    for (; section != sections + count; ++section) *section = section[1];
  }
};
constinit thread_local HeldSections heldByThisThread{};

}  // namespace

class LockOrderChecker::Section : public MTCritSec {
 public:
  Section(std::unique_ptr<MTCritSec> inner, LockClass lockClass, LockOrderChecker* checker)
      : lockClass_(lockClass), inner_(std::move(inner)), checker_(checker) {}
  ~Section() override { checker_->BeforeDestruction(this); }

  // Forwarders: the caller's section is this object, not the one inside.
  void Enter() override ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    checker_->BeforeEnter(this);
    inner_->Enter();
  }
  // Once it has been left, the next owner may destroy it.
  void Leave() override ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    checker_->BeforeLeave(this);
    inner_->Leave();
  }
  LockClass GetClass() const { return lockClass_; }

 private:
  const LockClass lockClass_;
  const std::unique_ptr<MTCritSec> inner_;
  LockOrderChecker* const checker_;
};

LockOrderChecker::LockOrderChecker(OnFinding onFinding) : onFinding_(onFinding) {}

// Never destroyed, as the sections of the library's own I/O thread are not.
LockOrderChecker& LockOrderChecker::Get() {
  static auto* const checker = new LockOrderChecker(OnFinding::kAbort);
  return *checker;
}

MTCritSec* LockOrderChecker::Wrap(std::unique_ptr<MTCritSec> inner, LockClass lockClass) {
  return new Section(std::move(inner), lockClass, this);
}

std::vector<LockOrderChecker::Finding> LockOrderChecker::TakeFindings() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return std::exchange(findings_, {});
}

std::string LockOrderChecker::GetEdges() {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::string text;
  for (std::size_t held = 0; held < Index(LockClass::kOther); ++held) {
    for (std::size_t entered = 0; entered < Index(LockClass::kOther); ++entered) {
      const auto to = static_cast<LockClass>(entered);
      if (entered_[held] & Bit(to)) text += EdgeToText(static_cast<LockClass>(held), to) + "\n";
    }
  }
  return text;
}

void LockOrderChecker::BeforeEnter(const Section* section) {
  HeldSections& held = heldByThisThread;
  if (HeldSection* const again = held.Find(section)) {
    ++again->entries;
    return;
  }
  const LockClass entered = section->GetClass();
  for (std::size_t k = 0; k < held.count; ++k) {
    const HeldSection& outer = held.sections[k];
    if (outer.checker != this) continue;
    const ClassSet known = entered_[Index(outer.lockClass)].load(std::memory_order_relaxed);
    if (!(known & Bit(entered))) LearnEdge(outer.lockClass, entered);
  }
  if (held.count == HeldSections::kMost) {
    std::fputs("too many locks held for the lock order checker\n", stderr);
    std::abort();
  }
  held.sections[held.count++] = {this, section, entered, 1};
}

void LockOrderChecker::BeforeLeave(const Section* section) {
  HeldSection* const held = heldByThisThread.Find(section);
  if (!held) {
    Report({Rule::kNotHeld,
            std::string(ToText(section->GetClass())) + " is left by a thread that is not inside"});
  } else if (--held->entries == 0) {
    heldByThisThread.Remove(held);
  }
}

void LockOrderChecker::BeforeDestruction(const Section* section) {
  HeldSection* const held = heldByThisThread.Find(section);
  if (!held) return;
  Report({Rule::kDestroyedInside,
          std::string(ToText(section->GetClass())) + " is destroyed by the thread inside"});
  heldByThisThread.Remove(held);
}

void LockOrderChecker::LearnEdge(LockClass held, LockClass entered) {
  const testing::TestInfo* const test = CurrentTest();
  Finding finding{};
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (entered_[Index(held)] & Bit(entered)) return;  // another thread was faster
    if (!BreaksRule(held, entered, &finding)) {
      firstSeen_[Index(held)][Index(entered)] = test;
      entered_[Index(held)].fetch_or(Bit(entered), std::memory_order_relaxed);
      return;
    }
  }
  finding.text = std::string(ToText(entered)) + " is entered while " + ToText(held) + " is held (" +
                 TestToText(test) + ")\n  this thread holds: " + HeldToText() + "\n  " +
                 finding.text;
  Report(std::move(finding));
}

bool LockOrderChecker::BreaksRule(LockClass held, LockClass entered, Finding* finding) {
  Way next{};
  if (IsForbiddenUnderLeaf(held, entered)) {
    *finding = {Rule::kLeaf, "nothing may be entered while that is held"};
  } else if (held == entered && !(kMayNest & Bit(held))) {
    *finding = {Rule::kSameClass, "two of a class may not be held at once"};
  } else if (IsAgainstOrder(held, entered)) {
    *finding = {Rule::kOrderTable, "the table has them the other way round"};
    if (FindWay(entered, held, &next)) {
      finding->text += "; seen so far: " + WayToText(entered, held, next);
    }
  } else if (held != entered && FindWay(entered, held, &next)) {
    *finding = {Rule::kBackEdge, "the other way round: " + WayToText(entered, held, next)};
  } else {
    return false;
  }
  return true;
}

// Answers whether edges lead there. next[k] becomes the class behind k on the way.
bool LockOrderChecker::FindWay(LockClass from, LockClass to, Way* next) const {
  ClassSet reaching = Bit(to);
  for (ClassSet before = 0; before != reaching;) {
    before = reaching;
    for (std::size_t k = 0; k < Index(LockClass::kOther); ++k) {
      const auto lockClass = static_cast<LockClass>(k);
      const ClassSet onTheWay = entered_[k] & before;
      if ((before & Bit(lockClass)) || onTheWay == 0) continue;
      (*next)[k] = static_cast<LockClass>(std::countr_zero(onTheWay));
      reaching |= Bit(lockClass);
    }
  }
  return (reaching & Bit(from)) != 0 && from != LockClass::kOther && to != LockClass::kOther;
}

std::string LockOrderChecker::WayToText(LockClass from, LockClass to, const Way& next) const {
  std::string text;
  for (LockClass k = from; k != to; k = next[Index(k)]) {
    text += (text.empty() ? "" : ", ") + EdgeToText(k, next[Index(k)]);
  }
  return text;
}

std::string LockOrderChecker::EdgeToText(LockClass held, LockClass entered) const {
  return std::string(ToText(held)) + " -> " + ToText(entered) + " (first in " +
         TestToText(firstSeen_[Index(held)][Index(entered)]) + ")";
}

std::string LockOrderChecker::HeldToText() const {
  std::string text;
  for (std::size_t k = 0; k < heldByThisThread.count; ++k) {
    const HeldSection& held = heldByThisThread.sections[k];
    if (held.checker != this) continue;
    text += (text.empty() ? "" : ", ") + std::string(ToText(held.lockClass));
  }
  return text;
}

void LockOrderChecker::Report(Finding finding) {
  if (onFinding_ == OnFinding::kAbort) {
    std::fprintf(stderr, "lock order: %s\n", finding.text.c_str());
    std::fflush(stderr);
    std::abort();
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  findings_.push_back(std::move(finding));
}

MTCritSec* OrderCheckingMTInterface::NewCritSec() {
  return LockOrderChecker::Get().Wrap(std::unique_ptr<MTCritSec>(MTInterfaceImpHost::NewCritSec()),
                                      GetLockClassBeingMade());
}

}  // namespace Orvane
