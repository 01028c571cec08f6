#include "LockOrderChecker.h"

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "MTInterface.h"
#include "OSServices/CritSecLock.h"
#include "OrvaneTest.h"

namespace Orvane {
namespace {

using Checker = LockOrderChecker;
using Rule = LockOrderChecker::Rule;
using CritSec = std::unique_ptr<MTCritSec>;

constexpr LockClass kOrder[] = {
    LockClass::kCacheCancel, LockClass::kReadSection,   LockClass::kDispatchedReadSection,
    LockClass::kCopySection, LockClass::kHandlerCancel, LockClass::kBatchTracker,
    LockClass::kBlockList,   LockClass::kBlock,         LockClass::kTracker,
};
constexpr LockClass kLeaves[] = {
    LockClass::kCacheObject, LockClass::kCommandQueue,  LockClass::kHandlerSlot,
    LockClass::kStatistics,  LockClass::kBatchRegistry, LockClass::kPool,
    LockClass::kPreReadList, LockClass::kBlockIndex,
};

// Takes anything.
class NoCritSec : public MTCritSec {
 public:
  void Enter() override ORVANE_NO_THREAD_SAFETY_ANALYSIS {}
  void Leave() override ORVANE_NO_THREAD_SAFETY_ANALYSIS {}
};

class LockOrderCheckerTest : public OrvaneTest {
 protected:
  CritSec New(LockClass lockClass) {
    return CritSec(checker_.Wrap(CritSec(MTInterface::NewCritSec()), lockClass));
  }
  // Holds one section of each class, each entered under those before it.
  void Nest(std::initializer_list<LockClass> classes) ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    std::vector<CritSec> sections;
    for (const LockClass lockClass : classes) {
      sections.push_back(New(lockClass));
      sections.back()->Enter();
    }
    for (std::size_t k = sections.size(); k-- > 0;) sections[k]->Leave();
  }
  // The rules that were broken since the last call.
  std::vector<Rule> Broken() {
    std::vector<Rule> rules;
    for (const Checker::Finding& finding : checker_.TakeFindings()) rules.push_back(finding.rule);
    return rules;
  }

  Checker checker_{Checker::OnFinding::kRecord};
};

using Rules = std::vector<Rule>;

TEST_F(LockOrderCheckerTest, AnOrderThatIsKeptIsNoFinding) {
  for (int i = 0; i < 2; ++i) {
    Nest({LockClass::kReaper, LockClass::kSortedList, LockClass::kFileState});
    Nest({LockClass::kReaper, LockClass::kFileState});
    Nest({LockClass::kSortedList, LockClass::kFileState});
  }
  EXPECT_EQ(Rules{}, Broken());
}

TEST_F(LockOrderCheckerTest, ABackEdgeIsFoundWithBothWays) {
  Nest({LockClass::kReaper, LockClass::kSortedList});
  EXPECT_EQ(Rules{}, Broken());
  Nest({LockClass::kPortQueue, LockClass::kSortedList, LockClass::kReaper});
  const std::vector<Checker::Finding> findings = checker_.TakeFindings();
  ASSERT_EQ(1U, findings.size());
  EXPECT_EQ(Rule::kBackEdge, findings[0].rule);
  const std::string test = "LockOrderCheckerTest.ABackEdgeIsFoundWithBothWays";
  EXPECT_EQ("reaper is entered while sorted list is held (" + test +
                ")\n  this thread holds: port queue, sorted list"
                "\n  the other way round: reaper -> sorted list (first in " +
                test + ")",
            findings[0].text);
}

TEST_F(LockOrderCheckerTest, ACircleOfSeveralClassesIsFound) {
  Nest({LockClass::kReaper, LockClass::kSortedList});
  Nest({LockClass::kSortedList, LockClass::kFileState});
  Nest({LockClass::kFileState, LockClass::kPortQueue});
  EXPECT_EQ(Rules{}, Broken());
  Nest({LockClass::kPortQueue, LockClass::kReaper});
  const std::vector<Checker::Finding> findings = checker_.TakeFindings();
  ASSERT_EQ(1U, findings.size());
  EXPECT_EQ(Rule::kBackEdge, findings[0].rule);
  for (const char* edge :
       {"reaper -> sorted list", "sorted list -> file state", "file state -> port queue"}) {
    EXPECT_NE(std::string::npos, findings[0].text.find(edge)) << findings[0].text;
  }
}

TEST_F(LockOrderCheckerTest, ACircleThatRunsOverClassesHeldFurtherOutIsFound) {
  Nest({LockClass::kReaper, LockClass::kSortedList, LockClass::kFileState});
  Nest({LockClass::kFileState, LockClass::kReaper});
  EXPECT_EQ(Rules{Rule::kBackEdge}, Broken());
}

TEST_F(LockOrderCheckerTest, AFindingDoesNotChangeTheGraph) {
  Nest({LockClass::kReaper, LockClass::kSortedList});
  Nest({LockClass::kSortedList, LockClass::kReaper});
  Nest({LockClass::kSortedList, LockClass::kReaper});
  EXPECT_EQ((Rules{Rule::kBackEdge, Rule::kBackEdge}), Broken());
  Nest({LockClass::kReaper, LockClass::kSortedList});
  EXPECT_EQ(Rules{}, Broken());
}

TEST_F(LockOrderCheckerTest, TheOrderIsThatOfClassesNotOfInstances) {
  const CritSec reapers[] = {New(LockClass::kReaper), New(LockClass::kReaper)};
  const CritSec lists[] = {New(LockClass::kSortedList), New(LockClass::kSortedList)};
  {
    const CritSecLock outer(reapers[0].get());
    const CritSecLock inner(lists[0].get());
  }
  const CritSecLock outer(lists[1].get());
  const CritSecLock inner(reapers[1].get());
  EXPECT_EQ(Rules{Rule::kBackEdge}, Broken());
}

TEST_F(LockOrderCheckerTest, OneGraphServesAllThreads) {
  std::thread([this] { Nest({LockClass::kReaper, LockClass::kSortedList}); }).join();
  std::thread([this] { Nest({LockClass::kSortedList, LockClass::kReaper}); }).join();
  EXPECT_EQ(Rules{Rule::kBackEdge}, Broken());
}

TEST_F(LockOrderCheckerTest, WhatOneThreadHoldsIsNothingToAnother) {
  const CritSec reaper = New(LockClass::kReaper);
  const CritSec pool = New(LockClass::kPool);
  {
    const CritSecLock outer(reaper.get());
    const CritSecLock inner(pool.get());
    std::thread([this] { Nest({LockClass::kSortedList, LockClass::kFileState}); }).join();
  }
  EXPECT_EQ(
      "reaper -> pool (first in "
      "LockOrderCheckerTest.WhatOneThreadHoldsIsNothingToAnother)\n"
      "sorted list -> file state (first in "
      "LockOrderCheckerTest.WhatOneThreadHoldsIsNothingToAnother)\n",
      checker_.GetEdges());
  EXPECT_EQ(Rules{}, Broken());
}

TEST_F(LockOrderCheckerTest, ThreadsThatKeepTheOrderCanRunAtOnce) {
  const CritSec reaper = New(LockClass::kReaper);
  const CritSec list = New(LockClass::kSortedList);
  long entries = 0;
  const auto work = [&]() ORVANE_NO_THREAD_SAFETY_ANALYSIS {  // nested entry
    for (int i = 0; i < 2000; ++i) {
      const CritSecLock outer(reaper.get());
      const CritSecLock inner(list.get());
      const CritSecLock again(reaper.get());
      ++entries;
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back(work);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(8000, entries);
  EXPECT_EQ(Rules{}, Broken());
}

TEST_F(LockOrderCheckerTest, TwoSectionsOfOneClassAreFound) {
  Nest({LockClass::kFileState, LockClass::kFileState});
  EXPECT_EQ(Rules{Rule::kSameClass}, Broken());
  Nest({LockClass::kFileState, LockClass::kSortedList, LockClass::kFileState});
  EXPECT_EQ((Rules{Rule::kSameClass, Rule::kBackEdge}), Broken());
  for (const LockClass lockClass : kOrder) Nest({lockClass, lockClass});
  EXPECT_EQ(Rules(std::size(kOrder), Rule::kSameClass), Broken());
}

TEST_F(LockOrderCheckerTest, TwoModifyLocksAreTheApplicationsBusiness) {
  Nest({LockClass::kSharedObjectModify, LockClass::kSharedObjectModify});
  EXPECT_EQ(Rules{}, Broken());
}

TEST_F(LockOrderCheckerTest, SectionsWithoutAClassMayBeEnteredInAnyOrder) {
  Nest({LockClass::kOther, LockClass::kOther, LockClass::kBlock, LockClass::kOther});
  Nest({LockClass::kTracker, LockClass::kOther});
  Nest({LockClass::kOther, LockClass::kBlock});
  Nest({LockClass::kBlock, LockClass::kTracker});
  EXPECT_EQ(Rules{}, Broken());
}

// Re-entry.

TEST_F(LockOrderCheckerTest, EnteringAgainIsNoEdge) ORVANE_NO_THREAD_SAFETY_ANALYSIS {
  const CritSec reaper = New(LockClass::kReaper);
  const CritSec pool = New(LockClass::kPool);
  reaper->Enter();
  pool->Enter();
  reaper->Enter();
  pool->Enter();
  pool->Leave();
  reaper->Leave();
  pool->Leave();
  reaper->Leave();
  EXPECT_EQ(Rules{}, Broken());
  EXPECT_EQ("reaper -> pool (first in LockOrderCheckerTest.EnteringAgainIsNoEdge)\n",
            checker_.GetEdges());
}

TEST_F(LockOrderCheckerTest, ASectionIsHeldUntilItsLastLeave) ORVANE_NO_THREAD_SAFETY_ANALYSIS {
  const CritSec pool = New(LockClass::kPool);
  pool->Enter();
  pool->Enter();
  pool->Leave();
  Nest({LockClass::kReaper});
  EXPECT_EQ(Rules{Rule::kLeaf}, Broken());
  pool->Leave();
  Nest({LockClass::kReaper});
  EXPECT_EQ(Rules{}, Broken());
}

TEST_F(LockOrderCheckerTest, SectionsMayBeLeftInAnyOrder) ORVANE_NO_THREAD_SAFETY_ANALYSIS {
  const CritSec reaper = New(LockClass::kReaper);
  const CritSec list = New(LockClass::kSortedList);
  reaper->Enter();
  list->Enter();
  reaper->Leave();
  Nest({LockClass::kFileState});
  list->Leave();
  Nest({LockClass::kPortQueue});
  EXPECT_EQ(Rules{}, Broken());
  const std::string test = " (first in LockOrderCheckerTest.SectionsMayBeLeftInAnyOrder)\n";
  EXPECT_EQ("reaper -> sorted list" + test + "sorted list -> file state" + test,
            checker_.GetEdges());
}

// Tables.

TEST_F(LockOrderCheckerTest, TheTableOfTheOrderIsKnownWithoutAnyEdge) {
  for (std::size_t held = 0; held < std::size(kOrder); ++held) {
    for (std::size_t entered = 0; entered < std::size(kOrder); ++entered) {
      if (held == entered) continue;
      Checker checker(Checker::OnFinding::kRecord);
      const CritSec outer(checker.Wrap(std::make_unique<NoCritSec>(), kOrder[held]));
      const CritSec inner(checker.Wrap(std::make_unique<NoCritSec>(), kOrder[entered]));
      {
        const CritSecLock first(outer.get());
        const CritSecLock second(inner.get());
      }
      const std::vector<Checker::Finding> findings = checker.TakeFindings();
      ASSERT_EQ(held < entered ? 0U : 1U, findings.size()) << held << ", " << entered;
      if (!findings.empty()) {
        EXPECT_EQ(Rule::kOrderTable, findings[0].rule);
      }
    }
  }
}

TEST_F(LockOrderCheckerTest, TheWholeTableCanBeHeldAtOnce) {
  Nest({kOrder[0], kOrder[1], kOrder[2], kOrder[3], kOrder[4], kOrder[5], kOrder[6], kOrder[7],
        kOrder[8], LockClass::kPool});
  EXPECT_EQ(Rules{}, Broken());
}

TEST_F(LockOrderCheckerTest, NothingIsEnteredUnderALeaf) {
  for (const LockClass leaf : kLeaves) {
    for (const LockClass entered :
         {leaf, LockClass::kSortedList, LockClass::kSharedObjectModify, LockClass::kOther}) {
      Nest({leaf, entered});
      EXPECT_EQ(Rules{Rule::kLeaf}, Broken()) << ToText(leaf) << ", " << ToText(entered);
    }
    Nest({LockClass::kSortedList, leaf});
    EXPECT_EQ(Rules{}, Broken()) << ToText(leaf);
  }
}

TEST_F(LockOrderCheckerTest, TheListOfPreReadsMayHoldTheirTrackers) {
  Nest({LockClass::kPreReadList, LockClass::kPreReadTracker});
  Nest({LockClass::kPreReadList, LockClass::kTracker});
  EXPECT_EQ(Rules{}, Broken());
}

// Misuse of one section.

TEST_F(LockOrderCheckerTest, LeavingWithoutHavingEnteredIsFound) ORVANE_NO_THREAD_SAFETY_ANALYSIS {
  const CritSec section(checker_.Wrap(std::make_unique<NoCritSec>(), LockClass::kBlock));
  section->Leave();
  EXPECT_EQ(Rules{Rule::kNotHeld}, Broken());
  section->Enter();
  std::thread([&]() ORVANE_NO_THREAD_SAFETY_ANALYSIS { section->Leave(); }).join();
  EXPECT_EQ(Rules{Rule::kNotHeld}, Broken());
  section->Leave();
  EXPECT_EQ(Rules{}, Broken());
}

TEST_F(LockOrderCheckerTest, DestroyingASectionInsideItIsFound) ORVANE_NO_THREAD_SAFETY_ANALYSIS {
  CritSec section(checker_.Wrap(std::make_unique<NoCritSec>(), LockClass::kPool));
  section->Enter();
  section.reset();
  EXPECT_EQ(Rules{Rule::kDestroyedInside}, Broken());
  Nest({LockClass::kBlock});  // it is not held any more
  EXPECT_EQ(Rules{}, Broken());
}

TEST_F(LockOrderCheckerTest, CheckersDoNotMix) {
  Checker other(Checker::OnFinding::kRecord);
  const CritSec pool(other.Wrap(std::make_unique<NoCritSec>(), LockClass::kPool));
  {
    const CritSecLock lock(pool.get());
    Nest({LockClass::kReaper, LockClass::kSortedList});
  }
  EXPECT_EQ(Rules{}, Broken());
  EXPECT_EQ("", other.GetEdges());
  EXPECT_TRUE(other.TakeFindings().empty());
}

TEST_F(LockOrderCheckerTest, KnownAndNewEdgesAllocateNothing) {
  const CritSec reaper = New(LockClass::kReaper);
  const CritSec list = New(LockClass::kSortedList);
  const std::size_t before = AllocationCounter::Count();
  for (int i = 0; i < 2; ++i) {
    const CritSecLock outer(reaper.get());
    const CritSecLock inner(list.get());
  }
  EXPECT_EQ(before, AllocationCounter::Count());
}

// The checker of the test program.

TEST_F(LockOrderCheckerTest, SectionsOfTheLibraryAreCheckedAndAFindingEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto enterInTheWrongOrder = [] {
    const CritSec tracker(NewCritSec(LockClass::kTracker));
    const CritSec block(NewCritSec(LockClass::kBlock));
    const CritSecLock outer(tracker.get());
    const CritSecLock inner(block.get());
  };
  EXPECT_DEATH(enterInTheWrongOrder(), "lock order: block is entered while tracker is held");
}

// Classes.

TEST_F(LockOrderCheckerTest, EveryClassHasATextOfItsOwn) {
  std::set<std::string> texts;
  for (std::size_t k = 0; k < kLockClassCount; ++k) {
    texts.insert(ToText(static_cast<LockClass>(k)));
  }
  EXPECT_EQ(kLockClassCount, texts.size());
  EXPECT_EQ(0U, texts.count("unknown"));
}

TEST_F(LockOrderCheckerTest, AClassIsForgottenOnceItsSectionIsMadeOrRefused) {
  TestMTInterface& mt = TestMTInterface::Get();
  EXPECT_EQ(LockClass::kOther, GetLockClassBeingMade());
  EXPECT_NE(nullptr, CritSec(NewCritSec(LockClass::kBlock)));
  EXPECT_EQ(LockClass::kOther, GetLockClassBeingMade());
  mt.FailCreation(1, TestMTInterface::kThrow);
  EXPECT_THROW(NewCritSec(LockClass::kBlock), std::bad_alloc);
  EXPECT_EQ(LockClass::kOther, GetLockClassBeingMade());
  mt.FailCreation(1, TestMTInterface::kNull);
  EXPECT_EQ(nullptr, NewCritSec(LockClass::kBlock));
  EXPECT_EQ(LockClass::kOther, GetLockClassBeingMade());
}

}  // namespace
}  // namespace Orvane
