#include "CoreClasses/SortedObjectList.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <numeric>
#include <random>
#include <stdexcept>

#include "OrvaneTest.h"
#include "SortedObjectTools.h"

namespace Orvane {
namespace {

using Item = SortedItem;
using Items = SortedItems;
using Finder = FunctionFinder;

Finder Nothing() {
  return Finder([](SortedObject*) { return false; });
}
Finder Everything() {
  return Finder([](SortedObject*) { return true; });
}
Finder Only(SortedObject* wanted) {
  return Finder([wanted](SortedObject* object) { return object == wanted; });
}

class ShortList : public SortedObjectList {
 public:
  explicit ShortList(std::size_t most) : SortedObjectList(true, false, most) {}
};

class SortedObjectListTest : public OrvaneTest {
 protected:
  void Add(std::initializer_list<SortedObject*> objects) {
    for (SortedObject* const object : objects) list_.AddObject(object);
  }
  // An object with a null owner can be added, one that has another owner cannot.
  bool CanBeAddedElsewhere(SortedObject* object) {
    SortedObjectList other(/*ascending=*/true, /*threadSafe=*/false);
    other.AddObject(object);
    return other.RemoveFirst() == object;
  }

  void TearDown() override {
    owned_.reset();
    OrvaneTest::TearDown();
  }

  std::unique_ptr<SortedObjectList> owned_{
      std::make_unique<SortedObjectList>(/*ascending=*/true, /*threadSafe=*/true)};
  SortedObjectList& list_ = *owned_;
  SortedObjectList descending_{/*ascending=*/false, /*threadSafe=*/false};
  Item one_{1}, two_{2}, alsoTwo_{2}, three_{3}, five_{5}, alsoFive_{5};
};

TEST_F(SortedObjectListTest, AscendingListPutsTheSmallestKeyFirst) {
  Add({&five_, &three_, &alsoFive_, &one_});
  EXPECT_EQ((Items{&one_, &three_, &five_, &alsoFive_}), Seen(&list_));
  EXPECT_EQ(4u, list_.GetCount());
}

TEST_F(SortedObjectListTest, DescendingListPutsTheGreatestKeyFirst) {
  descending_.AddObject(&one_);
  descending_.AddObject(&two_);
  descending_.AddObject(&alsoTwo_);
  EXPECT_EQ((Items{&two_, &alsoTwo_, &one_}), Seen(&descending_));
}

TEST_F(SortedObjectListTest, KeysAreComparedAsUnsigned64BitNumbers) {
  Item greatest(~std::uint64_t{0});
  Item high(std::uint64_t{1} << 63);
  Item low((std::uint64_t{1} << 32) + 1);
  Add({&greatest, &low, &high, &two_});
  EXPECT_EQ((Items{&two_, &low, &high, &greatest}), Seen(&list_));
}

TEST_F(SortedObjectListTest, TieOrdersEqualKeysInTheDirectionOfTheList) {
  Item late(2, 9), early(2, 4), first(1, 100), alsoEarly(2, 4);
  for (SortedObjectList* const list : {&list_, &descending_}) {
    for (Item* const item : {&late, &early, &first, &alsoEarly}) list->AddObject(item);
    EXPECT_EQ(list == &list_ ? (Items{&first, &early, &alsoEarly, &late})
                             : (Items{&late, &early, &alsoEarly, &first}),
              Seen(list));
    while (list->RemoveFirst()) {
    }
  }
}

TEST_F(SortedObjectListTest, TieIsZeroUnlessOverridden) {
  class Plain : public SortedObject {
    std::uint64_t GetSortKey() override { return 7; }
  };
  Plain plain;
  EXPECT_EQ(0u, plain.GetSortTie());
}

TEST_F(SortedObjectListTest, MemberAddedDuringAWalkIsSeenAtTheFrontUntilTheWalkEnds) {
  Add({&one_, &three_});
  Items inside;
  Finder finder([&](SortedObject* object) {
    if (object == &one_) {
      list_.AddObject(&two_);
      list_.AddObject(&five_);
      inside = Seen(&list_);
      EXPECT_EQ(&five_, list_.GetFirst());
    }
    EXPECT_TRUE(object == &one_ || object == &three_);
    return false;
  });
  list_.Iterate(&finder, /*forceSort=*/false);
  EXPECT_EQ((Items{&five_, &two_, &one_, &three_}), inside);
  EXPECT_EQ((Items{&one_, &two_, &three_, &five_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, ParkedMembersStandInFrontOfTheirEqualsTheNewestFirst) {
  Add({&two_, &three_});
  Item newest(2);
  Finder finder([&](SortedObject*) {
    list_.AddObject(&alsoTwo_);
    list_.AddObject(&newest);
    return true;
  });
  list_.Iterate(&finder, /*forceSort=*/false);
  EXPECT_EQ((Items{&newest, &alsoTwo_, &two_, &three_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, SearchWithoutMatchAnswersNullAndLeavesEveryOwner) {
  Add({&one_, &two_, &three_});
  Finder nothing = Nothing();
  EXPECT_EQ(nullptr, list_.FindAndRemove(&nothing));
  EXPECT_FALSE(list_.RemoveAllMatching(&nothing));
  for (Item* const item : {&one_, &two_, &three_}) {
    EXPECT_FALSE(CanBeAddedElsewhere(item));
    EXPECT_TRUE(item->Resort());
  }
  EXPECT_EQ((Items{&one_, &two_, &three_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, ResortOfAnObjectInNoListAnswersFalse) {
  EXPECT_FALSE(one_.Resort());
  Add({&one_});
  EXPECT_TRUE(one_.Resort());
  EXPECT_EQ(&one_, list_.RemoveFirst());
  EXPECT_FALSE(one_.Resort());
}

TEST_F(SortedObjectListTest, ResortDuringAWalkLeavesTheOrderAloneUntilItEnds) {
  Add({&one_, &two_, &three_});
  Items inside;
  Finder finder([&](SortedObject*) {
    three_.SetKey(0);
    EXPECT_TRUE(three_.Resort());
    inside = Seen(&list_);
    return true;
  });
  list_.Iterate(&finder, /*forceSort=*/false);
  EXPECT_EQ((Items{&one_, &two_, &three_}), inside);
  EXPECT_EQ((Items{&three_, &one_, &two_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, EmptyListHasNoFirstMember) {
  EXPECT_EQ(nullptr, list_.RemoveFirst());
  EXPECT_EQ(nullptr, list_.GetFirst());
  EXPECT_EQ(0u, list_.GetCount());
}

TEST_F(SortedObjectListTest, FirstMemberStaysUntilItIsRemoved) {
  Add({&two_, &one_});
  EXPECT_EQ(&one_, list_.GetFirst());
  EXPECT_EQ(2u, list_.GetCount());
  EXPECT_EQ(&one_, list_.RemoveFirst());
  EXPECT_EQ(1u, list_.GetCount());
  EXPECT_TRUE(CanBeAddedElsewhere(&one_));
  EXPECT_EQ(&two_, list_.GetFirst());
}

TEST_F(SortedObjectListTest, ResortMovesToTheNewPlaceBehindEqualKeys) {
  Add({&one_, &two_, &three_});
  one_.SetKey(2);
  EXPECT_TRUE(one_.Resort());
  EXPECT_EQ((Items{&two_, &one_, &three_}), Seen(&list_));
  EXPECT_TRUE(two_.Resort());
  EXPECT_EQ((Items{&one_, &two_, &three_}), Seen(&list_));
  three_.SetKey(0);
  EXPECT_TRUE(three_.Resort());
  EXPECT_EQ((Items{&three_, &one_, &two_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, SortReadsAllKeysAnewAndKeepsTheOrderOfEqualOnes) {
  Add({&one_, &two_, &alsoTwo_, &three_, &five_});
  one_.SetKey(7);
  five_.SetKey(0);
  three_.SetKey(2);
  list_.Sort();
  EXPECT_EQ((Items{&five_, &two_, &alsoTwo_, &three_, &one_}), Seen(&list_));
  for (Item* const item : {&one_, &two_, &alsoTwo_, &three_, &five_}) item->SetKey(1);
  list_.Sort();
  EXPECT_EQ((Items{&five_, &two_, &alsoTwo_, &three_, &one_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, ForcedWalkSortsAtItsEndAlsoWithoutAFinder) {
  Add({&one_, &two_});
  one_.SetKey(3);
  list_.Iterate(nullptr, /*forceSort=*/false);
  EXPECT_EQ((Items{&one_, &two_}), Seen(&list_));
  list_.Iterate(nullptr, /*forceSort=*/true);
  EXPECT_EQ((Items{&two_, &one_}), Seen(&list_));
  one_.SetKey(0);
  Finder nothing = Nothing();
  list_.Iterate(&nothing, /*forceSort=*/true);
  EXPECT_EQ((Items{&one_, &two_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, KeyThatChangedWithoutResortDoesNoHarm) {
  Add({&one_, &two_, &three_, &five_});
  one_.SetKey(9);
  three_.SetKey(0);
  Add({&alsoTwo_, &alsoFive_});
  EXPECT_EQ((Items{&one_, &two_, &alsoTwo_, &three_, &five_, &alsoFive_}), Seen(&list_));
  Finder three = Only(&three_);
  EXPECT_EQ(&three_, list_.FindAndRemove(&three));
  EXPECT_EQ(&one_, list_.RemoveFirst());
  EXPECT_EQ((Items{&two_, &alsoTwo_, &five_, &alsoFive_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, WalkStopsAtTheFirstTrue) {
  Add({&one_, &two_, &three_});
  Items seen;
  Finder finder([&](SortedObject* object) {
    seen.push_back(object);
    return object == &two_;
  });
  list_.Iterate(&finder, /*forceSort=*/false);
  EXPECT_EQ((Items{&one_, &two_}), seen);
  EXPECT_EQ(3u, list_.GetCount());
}

TEST_F(SortedObjectListTest, FindAndRemoveTakesTheFirstMatch) {
  Add({&one_, &two_, &alsoTwo_, &three_});
  Finder twos([](SortedObject* object) { return object->GetSortKey() == 2; });
  EXPECT_EQ(&two_, list_.FindAndRemove(&twos));
  EXPECT_EQ((Items{&one_, &alsoTwo_, &three_}), Seen(&list_));
  EXPECT_FALSE(two_.Resort());
  EXPECT_TRUE(CanBeAddedElsewhere(&two_));
}

TEST_F(SortedObjectListTest, RemoveAllMatchingTakesEveryMatch) {
  Add({&one_, &two_, &three_, &alsoTwo_, &five_});
  Finder odd([](SortedObject* object) { return object->GetSortKey() % 2 == 1; });
  EXPECT_TRUE(list_.RemoveAllMatching(&odd));
  EXPECT_EQ((Items{&two_, &alsoTwo_}), Seen(&list_));
  EXPECT_FALSE(list_.RemoveAllMatching(&odd));
  for (Item* const item : {&one_, &three_, &five_}) EXPECT_FALSE(item->Resort());
  Finder everything = Everything();
  EXPECT_TRUE(list_.RemoveAllMatching(&everything));
  EXPECT_EQ(0u, list_.GetCount());
}

TEST_F(SortedObjectListTest, NullFinderAndNullObjectDoNothing) {
  list_.AddObject(nullptr);
  EXPECT_EQ(0u, list_.GetCount());
  Add({&one_});
  EXPECT_EQ(nullptr, list_.FindAndRemove(nullptr));
  EXPECT_FALSE(list_.RemoveAllMatching(nullptr));
  EXPECT_EQ(1u, list_.GetCount());
}

TEST_F(SortedObjectListTest, MemberOfAnotherListIsNotAdded) {
  Add({&one_});
  descending_.AddObject(&one_);
  EXPECT_EQ(0u, descending_.GetCount());
  EXPECT_EQ((Items{&one_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, MemberThatIsAddedAgainHasTwoEntries) {
  Add({&two_, &one_, &two_, &three_});
  EXPECT_EQ(4u, list_.GetCount());
  EXPECT_EQ((Items{&one_, &two_, &two_, &three_}), Seen(&list_));
  two_.SetKey(9);
  EXPECT_TRUE(two_.Resort());
  EXPECT_EQ((Items{&one_, &two_, &three_, &two_}), Seen(&list_));
  one_.SetKey(10);
  EXPECT_TRUE(one_.Resort());
  EXPECT_EQ(&two_, list_.RemoveFirst());
  EXPECT_FALSE(two_.Resort());
  EXPECT_EQ((Items{&three_, &two_, &one_}), Seen(&list_));
  Add({&two_});
  two_.SetKey(0);
  EXPECT_TRUE(two_.Resort());
  EXPECT_EQ((Items{&two_, &three_, &two_, &one_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, ResortMovesTheFirstOfTwoEntries) {
  Add({&two_, &three_});
  two_.SetKey(9);
  Add({&two_});
  two_.SetKey(4);
  EXPECT_TRUE(two_.Resort());
  EXPECT_EQ((Items{&three_, &two_, &two_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, SearchGivesTheOwnerBackToAnEntryThatWasLeftBehind) {
  Add({&two_, &two_});
  EXPECT_EQ(&two_, list_.RemoveFirst());
  EXPECT_FALSE(two_.Resort());
  Finder nothing = Nothing();
  EXPECT_EQ(nullptr, list_.FindAndRemove(&nothing));
  EXPECT_TRUE(two_.Resort());
}

TEST_F(SortedObjectListTest, ListWithoutLockMakesNone) {
  const LiveCounts before = TestMTInterface::Get().GetLiveCounts();
  const SortedObjectList without(true, /*threadSafe=*/false);
  EXPECT_EQ(before, TestMTInterface::Get().GetLiveCounts());
  {
    const SortedObjectList with(true, /*threadSafe=*/true);
    EXPECT_EQ(before.critSecs + 1, TestMTInterface::Get().GetLiveCounts().critSecs);
  }
  EXPECT_EQ(before, TestMTInterface::Get().GetLiveCounts());
}

TEST_F(SortedObjectListTest, DestructionLeavesTheMembersAsTheyAre) {
  {
    SortedObjectList list(true, false);
    list.AddObject(&one_);
  }
  Add({&one_});
  EXPECT_EQ(0u, list_.GetCount());
  EXPECT_EQ(1u, one_.GetSortKey());
}

// What a finder may do.

TEST_F(SortedObjectListTest, FinderMayDeleteItsMatch) {
  std::vector<std::unique_ptr<Item>> items;
  for (std::uint64_t i = 0; i < 6; ++i) {
    items.push_back(std::make_unique<Item>(i));
    list_.AddObject(items.back().get());
  }
  Finder deleter([&](SortedObject* object) {
    const std::uint64_t key = object->GetSortKey();
    if (key % 2 == 0) return false;
    items[key].reset();
    return true;
  });
  SortedObject* const gone = items[1].get();
  EXPECT_EQ(gone, list_.FindAndRemove(&deleter));
  EXPECT_TRUE(list_.RemoveAllMatching(&deleter));
  EXPECT_EQ((Items{items[0].get(), items[2].get(), items[4].get()}), Seen(&list_));
  EXPECT_TRUE(items[2]->Resort());
}

TEST_F(SortedObjectListTest, FinderMayMoveItsMatchToAnotherList) {
  Add({&one_, &two_, &three_});
  Finder mover([&](SortedObject* object) {
    EXPECT_FALSE(object->Resort());
    if (object == &one_) return false;
    descending_.AddObject(object);
    return true;
  });
  EXPECT_EQ(&two_, list_.FindAndRemove(&mover));
  EXPECT_TRUE(list_.RemoveAllMatching(&mover));
  EXPECT_EQ((Items{&one_}), Seen(&list_));
  EXPECT_EQ((Items{&three_, &two_}), Seen(&descending_));
  two_.SetKey(4);
  EXPECT_TRUE(two_.Resort());
  EXPECT_EQ((Items{&two_, &three_}), Seen(&descending_));
}

TEST_F(SortedObjectListTest, MemberThatIsAddedElsewhereAndNotTakenIsInBothLists) {
  Add({&one_, &two_});
  Finder adder([&](SortedObject* object) {
    if (object == &one_) descending_.AddObject(object);
    return false;
  });
  EXPECT_EQ(nullptr, list_.FindAndRemove(&adder));
  EXPECT_EQ((Items{&one_}), Seen(&descending_));
  one_.SetKey(3);
  EXPECT_TRUE(one_.Resort());
  EXPECT_EQ((Items{&two_, &one_}), Seen(&list_));
  EXPECT_EQ(&one_, descending_.RemoveFirst());
  EXPECT_FALSE(one_.Resort());
  EXPECT_EQ((Items{&two_, &one_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, MemberThatIsAddedAgainByItsFinderStays) {
  Add({&two_, &three_});
  Finder adder([&](SortedObject* object) {
    list_.AddObject(object);
    return object == &two_;
  });
  EXPECT_EQ(&two_, list_.FindAndRemove(&adder));
  EXPECT_EQ((Items{&two_, &three_}), Seen(&list_));
  two_.SetKey(4);
  EXPECT_TRUE(two_.Resort());
  EXPECT_EQ((Items{&three_, &two_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, MemberThatIsAddedAgainByItsFinderAndNotTakenHasTwoEntries) {
  Add({&three_, &five_});
  Finder adder([&](SortedObject* object) {
    if (object == &three_) list_.AddObject(object);
    return false;
  });
  EXPECT_EQ(nullptr, list_.FindAndRemove(&adder));
  EXPECT_EQ((Items{&three_, &three_, &five_}), Seen(&list_));
  three_.SetKey(9);
  EXPECT_TRUE(three_.Resort());
  EXPECT_EQ((Items{&three_, &five_, &three_}), Seen(&list_));
  three_.SetKey(7);
  EXPECT_TRUE(three_.Resort());
  EXPECT_EQ((Items{&five_, &three_, &three_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, MemberAddedDuringARemovingSearchIsNotChecked) {
  Add({&two_, &three_});
  Finder finder([&](SortedObject* object) {
    if (object == &two_) list_.AddObject(&one_);
    return object != &two_;
  });
  EXPECT_TRUE(list_.RemoveAllMatching(&finder));
  EXPECT_EQ((Items{&one_, &two_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, FinderThatThrowsLeavesTheListInOrder) {
  Add({&one_, &two_, &three_});
  Finder thrower([&](SortedObject* object) {
    if (object == &one_) return false;
    alsoTwo_.SetKey(alsoTwo_.Key() + 1);
    list_.AddObject(&alsoTwo_);
    throw std::runtime_error("found nothing");
  });
  Finder alsoTwo = Only(&alsoTwo_);
  const std::function<void()> walks[] = {[&] { list_.Iterate(&thrower, false); },
                                         [&] { list_.FindAndRemove(&thrower); },
                                         [&] { list_.RemoveAllMatching(&thrower); }};
  for (const std::function<void()>& walk : walks) {
    EXPECT_THROW(walk(), std::runtime_error);
    for (Item* const item : {&one_, &two_, &three_}) EXPECT_FALSE(CanBeAddedElsewhere(item));
    EXPECT_TRUE(one_.Resort());
    EXPECT_TRUE(two_.Resort());
    EXPECT_EQ(alsoTwo_.Key() == 3 ? (Items{&one_, &two_, &alsoTwo_, &three_})
                                  : (Items{&one_, &two_, &three_, &alsoTwo_}),
              Seen(&list_));
    EXPECT_EQ(&alsoTwo_, list_.FindAndRemove(&alsoTwo));
  }
}

TEST_F(SortedObjectListTest, SortWaitsForTheOutermostWalk) {
  Add({&one_, &two_, &three_});
  Items inside;
  Finder inner([&](SortedObject*) {
    one_.SetKey(9);
    list_.Sort();
    list_.AddObject(&five_);
    return true;
  });
  Finder outer([&](SortedObject*) {
    list_.Iterate(&inner, /*forceSort=*/true);
    inside = Seen(&list_);
    return true;
  });
  list_.Iterate(&outer, /*forceSort=*/false);
  EXPECT_EQ((Items{&five_, &one_, &two_, &three_}), inside);
  EXPECT_EQ((Items{&two_, &three_, &five_, &one_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, WalkGoesOnBehindMembersThatItsFinderTookOut) {
  Add({&one_, &two_, &alsoTwo_, &three_, &five_});
  Items seen;
  Finder two = Only(&two_);
  Finder twos([](SortedObject* object) { return object->GetSortKey() == 2; });
  Finder finder([&](SortedObject* object) {
    seen.push_back(object);
    if (object == &one_) {
      EXPECT_EQ(&one_, list_.RemoveFirst());
      EXPECT_EQ(&two_, list_.FindAndRemove(&two));
      EXPECT_EQ(&alsoTwo_, list_.GetFirst());
      EXPECT_EQ(3u, list_.GetCount());
      EXPECT_TRUE(list_.RemoveAllMatching(&twos));
      list_.AddObject(&one_);
    }
    return false;
  });
  list_.Iterate(&finder, /*forceSort=*/false);
  EXPECT_EQ((Items{&one_, &three_, &five_}), seen);
  EXPECT_EQ((Items{&one_, &three_, &five_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, MemberThatItsFinderTookOutIsNotTouchedAgain) {
  for (const bool answer : {false, true}) {
    auto item = std::make_unique<Item>(0);
    SortedObject* const address = item.get();
    Add({address, &one_});
    Finder finder([&](SortedObject* object) {
      if (object != address) return false;
      EXPECT_EQ(address, list_.RemoveFirst());
      item.reset();
      return answer;
    });
    EXPECT_EQ(answer ? address : nullptr, list_.FindAndRemove(&finder));
    EXPECT_EQ(1u, list_.GetCount());
    EXPECT_EQ(&one_, list_.RemoveFirst());
  }
}

TEST_F(SortedObjectListTest, EveryMemberMayGoDuringAWalk) {
  Add({&one_, &two_, &three_});
  Finder everything = Everything();
  Items seen;
  Finder finder([&](SortedObject* object) {
    seen.push_back(object);
    EXPECT_TRUE(list_.RemoveAllMatching(&everything));
    EXPECT_EQ(nullptr, list_.GetFirst());
    EXPECT_EQ(nullptr, list_.RemoveFirst());
    EXPECT_EQ(Items{}, Seen(&list_));
    return false;
  });
  list_.Iterate(&finder, /*forceSort=*/true);
  EXPECT_EQ((Items{&one_}), seen);
  EXPECT_EQ(0u, list_.GetCount());
}

TEST_F(SortedObjectListTest, MemberHasNoOwnerWhileItIsCheckedWhateverIsSearchedMeanwhile) {
  Add({&one_, &two_});
  Finder nothing = Nothing();
  Finder finder([&](SortedObject* object) {
    EXPECT_EQ(nullptr, list_.FindAndRemove(&nothing));
    EXPECT_FALSE(object->Resort());
    EXPECT_TRUE(CanBeAddedElsewhere(object));
    return object == &two_;
  });
  EXPECT_EQ(&two_, list_.FindAndRemove(&finder));
  EXPECT_FALSE(two_.Resort());
  EXPECT_TRUE(one_.Resort());
}

TEST_F(SortedObjectListTest, SecondEntriesMadeWhileSearchesAreNestedDoNoHarm) {
  Add({&one_, &two_});
  Finder nothing = Nothing();
  Finder finder([&](SortedObject* object) {
    list_.AddObject(object);
    EXPECT_EQ(nullptr, list_.FindAndRemove(&nothing));
    EXPECT_EQ(object, list_.RemoveFirst());
    return true;
  });
  EXPECT_EQ(&one_, list_.FindAndRemove(&finder));
  EXPECT_FALSE(one_.Resort());
  EXPECT_EQ((Items{&two_}), Seen(&list_));
}

TEST_F(SortedObjectListTest, EntryThatWasLeftBehindDoesNotDisturbTheNewOwner) {
  Add({&one_, &two_});
  Finder nothing = Nothing();
  Finder finder([&](SortedObject* object) {
    list_.AddObject(object);
    EXPECT_EQ(nullptr, list_.FindAndRemove(&nothing));
    return true;
  });
  EXPECT_EQ(&one_, list_.FindAndRemove(&finder));
  EXPECT_EQ((Items{&one_, &two_}), Seen(&list_));
  descending_.AddObject(&one_);
  descending_.AddObject(&three_);
  list_.Sort();
  one_.SetKey(4);
  EXPECT_TRUE(one_.Resort());
  EXPECT_EQ((Items{&one_, &three_}), Seen(&descending_));
  EXPECT_EQ((Items{&one_, &two_}), Seen(&list_));
}

// Limits and cost.

TEST_F(SortedObjectListTest, FullListIsALengthError) {
  ShortList list(2);
  list.AddObject(&two_);
  list.AddObject(&one_);
  try {
    list.AddObject(&three_);
    ADD_FAILURE() << "no exception";
  } catch (const std::length_error& error) {
    EXPECT_STREQ("list too long", error.what());
  }
  EXPECT_EQ((Items{&one_, &two_}), Seen(&list));
  EXPECT_TRUE(CanBeAddedElsewhere(&three_));
  list.RemoveFirst();
  list.AddObject(&three_);
  EXPECT_EQ((Items{&two_, &three_}), Seen(&list));
}

TEST_F(SortedObjectListTest, AddThatFindsNoMemoryChangesNothing) {
  Add({&one_, &three_});
  {
    const AllocationFailure failure(1);
    EXPECT_THROW(list_.AddObject(&two_), std::bad_alloc);
  }
  EXPECT_EQ(2U, list_.GetCount());
  EXPECT_TRUE(CanBeAddedElsewhere(&two_));
  EXPECT_EQ((Items{&one_, &three_}), Seen(&list_));
  Finder adder([&](SortedObject*) {
    const AllocationFailure failure(1);
    EXPECT_THROW(list_.AddObject(&two_), std::bad_alloc);
    return true;
  });
  list_.Iterate(&adder, /*forceSort=*/false);
  EXPECT_EQ((Items{&one_, &three_}), Seen(&list_));
  Add({&two_});
  EXPECT_EQ((Items{&one_, &two_, &three_}), Seen(&list_));
}

class SortedObjectListCostTest : public OrvaneTest {
 protected:
  static constexpr std::size_t kMany = 131072;

  // Distinct keys below `count` in no order.
  std::vector<std::unique_ptr<Item>> Shuffled(std::size_t count) {
    std::vector<std::uint64_t> keys(count);
    std::iota(keys.begin(), keys.end(), std::uint64_t{0});
    std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
    std::vector<std::unique_ptr<Item>> items;
    for (const std::uint64_t key : keys) items.push_back(std::make_unique<Item>(key));
    return items;
  }

  SortedObjectList list_{/*ascending=*/true, /*threadSafe=*/false};
};

TEST_F(SortedObjectListCostTest, AddingAndRemovingTheFirstDoNotDependOnTheLength) {
  const auto items = Shuffled(kMany);
  const auto work = [&](std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) list_.AddObject(items[i].get());
    std::uint64_t last = 0;
    while (SortedObject* const first = list_.RemoveFirst()) {
      ASSERT_LE(last, first->GetSortKey());
      last = first->GetSortKey();
    }
  };
  EXPECT_TRUE(GrowsLinearly(work, kMany));
}

TEST_F(SortedObjectListCostTest, ResortingDoesNotDependOnTheLength) {
  const auto items = Shuffled(kMany);
  const auto work = [&](std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) list_.AddObject(items[i].get());
    for (std::size_t i = 0; i < count; ++i) {
      items[i]->SetKey(items[i]->Key() * 40503 % kMany);
      EXPECT_TRUE(items[i]->Resort());
    }
    while (list_.RemoveFirst()) {
    }
  };
  EXPECT_TRUE(GrowsLinearly(work, kMany));
}

TEST_F(SortedObjectListCostTest, TakingOutInsideAWalkDoesNotDependOnTheLength) {
  const auto items = Shuffled(kMany);
  const auto work = [&](std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) list_.AddObject(items[i].get());
    Finder everything = Everything();
    Finder finder([&](SortedObject*) {
      while (list_.GetCount() > 1) {
        list_.FindAndRemove(&everything);
        list_.RemoveFirst();
      }
      return true;
    });
    list_.Iterate(&finder, /*forceSort=*/false);
    while (list_.RemoveFirst()) {
    }
  };
  EXPECT_TRUE(GrowsLinearly(work, kMany));
}

TEST_F(SortedObjectListCostTest, SteadyUseAllocatesNothing) {
  const auto items = Shuffled(200);
  for (std::size_t i = 0; i < 100; ++i) list_.AddObject(items[i].get());
  Finder finder([&](SortedObject* object) {
    if (object->GetSortKey() % 8 == 3) return true;
    list_.AddObject(list_.RemoveFirst());
    return false;
  });
  SortedObject* spare = list_.RemoveFirst();
  ASSERT_NE(nullptr, list_.RemoveFirst());  // for the node that a walk keeps
  const std::size_t before = AllocationCounter::Count();
  for (std::size_t i = 0; i < 1000; ++i) {
    items[i % 100]->SetKey(i * 7919 % 512);
    items[i * 37 % 100]->Resort();
    list_.AddObject(spare);
    if (i % 10 == 0) list_.Sort();
    spare = list_.FindAndRemove(&finder);
    if (!spare) spare = list_.RemoveFirst();
  }
  EXPECT_EQ(before, AllocationCounter::Count());
}

TEST_F(SortedObjectListCostTest, MembersThatLeftMakeRoomForAsManyUpTo64) {
  const auto items = Shuffled(200);
  for (const auto& item : items) list_.AddObject(item.get());
  while (list_.RemoveFirst()) {
  }
  const std::size_t before = AllocationCounter::Count();
  for (std::size_t i = 0; i < 64; ++i) list_.AddObject(items[i].get());
  EXPECT_EQ(before, AllocationCounter::Count());
  list_.AddObject(items[64].get());
  EXPECT_LT(before, AllocationCounter::Count());
}

}  // namespace
}  // namespace Orvane
