// Finds locks that are entered in an order that could block for ever, whether or not it did.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "OSServices/LockClass.h"
#include "OSServicesHost.h"

namespace testing {
class TestInfo;
}

namespace Orvane {

// Every section it wraps reports to it. It knows which ones a thread holds, and keeps one graph for
// all threads: an edge from each class that was held to each class that was entered meanwhile.
// Only the outermost entry of a section counts; its owner may enter it again at any place.
//
// Rules, each checked before the thread could block:
//
// | rule              | forbidden                                                                |
// |-------------------|--------------------------------------------------------------------------|
// | kBackEdge         | an edge that closes a circle in the graph                                |
// | kOrderTable       | entering a class while a later one of the table of the order is held     |
// | kSameClass        | holding two sections of one class, but for the exempt classes            |
// | kLeaf             | entering any section while one of a leaf class is held                   |
// | kNotHeld          | leaving a section that the thread does not hold                          |
// | kDestroyedInside  | destroying a section that the thread holds                               |
//
// The table, the leaves and the exempt classes stand in the source. Sections of LockClass::kOther
// may be entered in any order, but not under a leaf.
//
// Safe from any thread: the graph grows under a mutex and is read without. Allocates only to report
// a finding. Outlives its sections.
class LockOrderChecker {
 public:
  enum class Rule : std::uint8_t {
    kBackEdge,
    kOrderTable,
    kSameClass,
    kLeaf,
    kNotHeld,
    kDestroyedInside,
  };
  enum class OnFinding : std::uint8_t { kAbort, kRecord };
  struct Finding {
    Rule rule;
    std::string text;
  };

  // kAbort: a finding is printed to standard error and ends the process. kRecord: it is kept, the
  // edge is left out of the graph, and the thread goes on.
  explicit LockOrderChecker(OnFinding onFinding);
  LockOrderChecker(const LockOrderChecker&) = delete;
  LockOrderChecker& operator=(const LockOrderChecker&) = delete;

  // That of the test program; aborts.
  static LockOrderChecker& Get();

  // A section that behaves like `inner`. Belongs to the caller.
  MTCritSec* Wrap(std::unique_ptr<MTCritSec> inner, LockClass lockClass);

  // The findings since the last call.
  std::vector<Finding> TakeFindings();
  // One line per edge between classes of the library, with the test that made it first.
  std::string GetEdges();

 private:
  class Section;
  // One bit or entry per class.
  using ClassSet = std::uint32_t;
  using Way = std::array<LockClass, kLockClassCount>;
  static_assert(kLockClassCount <= 32, "a set of classes is one word");

  void BeforeEnter(const Section* section);
  void BeforeLeave(const Section* section);
  void BeforeDestruction(const Section* section);

  void LearnEdge(LockClass held, LockClass entered);
  bool BreaksRule(LockClass held, LockClass entered, Finding* finding);
  bool FindWay(LockClass from, LockClass to, Way* next) const;
  std::string WayToText(LockClass from, LockClass to, const Way& next) const;
  std::string EdgeToText(LockClass held, LockClass entered) const;
  std::string HeldToText() const;
  void Report(Finding finding);

  const OnFinding onFinding_;
  // Changed under mutex_, read without: a bit that is set stays set.
  std::array<std::atomic<ClassSet>, kLockClassCount> entered_{};  // while the class was held
  std::mutex mutex_;
  // Under mutex_. Null: outside of any test.
  std::array<std::array<const testing::TestInfo*, kLockClassCount>, kLockClassCount> firstSeen_{};
  std::vector<Finding> findings_;
};

// The host's threading with sections that report to the checker of the test program.
class OrderCheckingMTInterface : public MTInterfaceImpHost {
 public:
  MTCritSec* NewCritSec() override;
};

}  // namespace Orvane
