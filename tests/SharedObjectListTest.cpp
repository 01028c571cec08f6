#include "SharedObjectList.h"

#include <memory>

#include "OrvaneTest.h"

namespace Orvane {
namespace {

class Member : public SharedObject {};

// Notes what it is called with and stops after `limit` calls.
class Collector : public SharedObjectList::IterateCallback {
 public:
  explicit Collector(std::size_t limit) : limit_(limit) {}
  bool Callback(SharedObject* object, std::size_t index) override {
    seen.emplace_back(object, index);
    return seen.size() < limit_;
  }

  std::vector<std::pair<SharedObject*, std::size_t>> seen;

 private:
  const std::size_t limit_;
};

class SharedObjectListTest : public OrvaneTest {
 protected:
  AutoRelease<SharedObjectList> list_{new SharedObjectList};
  AutoRelease<Member> a_{new Member};
  AutoRelease<Member> b_{new Member};
  AutoRelease<Member> c_{new Member};

  void AddThree() {
    list_->AddToBack(a_);
    list_->AddToBack(b_);
    list_->AddToBack(c_);
  }
  void TearDown() override {
    list_.Release();
    a_.Release();
    b_.Release();
    c_.Release();
    OrvaneTest::TearDown();
  }
};

TEST_F(SharedObjectListTest, SecondAddOfTheSameObjectIsRefused) {
  EXPECT_TRUE(list_->AddToBack(a_));
  EXPECT_EQ(2, a_->GetRefCount());
  EXPECT_FALSE(list_->AddToBack(a_));
  EXPECT_FALSE(list_->AddToFront(a_));
  EXPECT_EQ(2, a_->GetRefCount());
  EXPECT_EQ(1u, list_->Count());
}

TEST_F(SharedObjectListTest, NullIsAMemberAtMostOnce) {
  EXPECT_TRUE(list_->AddToBack(nullptr));
  EXPECT_FALSE(list_->AddToFront(nullptr));
  EXPECT_TRUE(list_->AddToBack(a_));
  EXPECT_EQ(0u, list_->Find(nullptr));
  EXPECT_EQ(nullptr, list_->GetAndRemove(0));
  EXPECT_EQ(1u, list_->Count());
  EXPECT_FALSE(list_->Remove(nullptr));
}

TEST_F(SharedObjectListTest, NothingIsFoundInAnEmptyList) {
  EXPECT_EQ(SharedObjectList::kIndexInvalid, list_->Find(a_));
  EXPECT_EQ(SharedObjectList::kIndexInvalid, list_->Find(nullptr));
  EXPECT_EQ(nullptr, list_->Get(0));
  EXPECT_EQ(nullptr, list_->Get(SharedObjectList::kIndexInvalid));
  EXPECT_EQ(nullptr, list_->GetAndRemove(SharedObjectList::kIndexInvalid));
  EXPECT_FALSE(list_->Remove(SharedObjectList::kIndexInvalid));
  EXPECT_EQ(18446744073709551615u, SharedObjectList::kIndexInvalid);
}

TEST_F(SharedObjectListTest, FrontAndBackGiveTheOrder) {
  list_->AddToBack(b_);
  list_->AddToFront(a_);
  list_->AddToBack(c_);
  EXPECT_EQ(a_.Get(), list_->Get(0));
  EXPECT_EQ(b_.Get(), list_->Get(1));
  EXPECT_EQ(c_.Get(), list_->Get(2));
  EXPECT_EQ(nullptr, list_->Get(3));
  EXPECT_EQ(2u, list_->Find(c_));
  EXPECT_EQ(2, a_->GetRefCount());
}

TEST_F(SharedObjectListTest, PositionsCloseUpBehindARemovedMember) {
  AddThree();
  EXPECT_TRUE(list_->Remove(b_));
  EXPECT_EQ(1, b_->GetRefCount());
  EXPECT_FALSE(list_->Remove(b_));
  EXPECT_EQ(1u, list_->Find(c_));
  EXPECT_EQ(c_.Get(), list_->Get(1));
  EXPECT_TRUE(list_->Remove(std::size_t{0}));
  EXPECT_EQ(1, a_->GetRefCount());
  EXPECT_EQ(0u, list_->Find(c_));
}

TEST_F(SharedObjectListTest, IterationVisitsAllMembersInOrder) {
  AddThree();
  Collector collector(100);
  list_->Iterate(&collector);
  EXPECT_EQ((std::vector<std::pair<SharedObject*, std::size_t>>{{a_, 0}, {b_, 1}, {c_, 2}}),
            collector.seen);
  list_->Iterate(nullptr);
}

TEST_F(SharedObjectListTest, IterationStopsAtTheFirstFalse) {
  AddThree();
  Collector collector(1);
  list_->Iterate(&collector);
  EXPECT_EQ((std::vector<std::pair<SharedObject*, std::size_t>>{{a_, 0}}), collector.seen);
}

// Sees, at its release, whether the list still has it.
class Watcher : public Member {
 public:
  Watcher(SharedObjectList* list, std::size_t* countAtRelease)
      : list_(list), countAtRelease_(countAtRelease) {}
  long DecRef(const char* file, const char* function, unsigned long line) override {
    *countAtRelease_ = list_->Count();
    return Member::DecRef(file, function, line);
  }

 private:
  SharedObjectList* const list_;
  std::size_t* const countAtRelease_;
};

TEST_F(SharedObjectListTest, GetAndRemoveReleasesBeforeItHandsOut) {
  std::size_t countAtRelease = 0;
  AutoRelease<Watcher> watcher(new Watcher(list_, &countAtRelease));
  list_->AddToBack(watcher);
  EXPECT_EQ(watcher.Get(), list_->GetAndRemove(0));
  EXPECT_EQ(1u, countAtRelease);
  EXPECT_EQ(1, watcher->GetRefCount());
  EXPECT_EQ(0u, list_->Count());
}

TEST_F(SharedObjectListTest, RemoveByPositionReleasesFirstAndRemoveByObjectUnlinksFirst) {
  std::size_t countAtRelease = 0;
  AutoRelease<Watcher> watcher(new Watcher(list_, &countAtRelease));
  list_->AddToBack(watcher);
  list_->Remove(std::size_t{0});
  EXPECT_EQ(1u, countAtRelease);
  list_->AddToBack(watcher);
  list_->Remove(watcher.Get());
  EXPECT_EQ(0u, countAtRelease);
}

TEST_F(SharedObjectListTest, RemoveAllAndDestructionReleaseEveryMember) {
  AddThree();
  list_->RemoveAll();
  EXPECT_EQ(0u, list_->Count());
  EXPECT_EQ(1, a_->GetRefCount());
  AddThree();
  list_.Release();
  EXPECT_EQ(1, a_->GetRefCount());
  EXPECT_EQ(1, c_->GetRefCount());
}

// A member may go together with the list's reference, and so change the list from its destructor.
class Successor : public Member {
 public:
  Successor(SharedObjectList* list, SharedObject* next) : list_(list), next_(next) {}

 protected:
  ~Successor() override { list_->AddToFront(next_); }

 private:
  SharedObjectList* const list_;
  SharedObject* const next_;
};

TEST_F(SharedObjectListTest, MemberThatGoesMayAddToTheList) {
  AutoRelease<Successor> member(new Successor(list_, a_));
  list_->AddToBack(member);
  list_->AddToBack(b_);
  Successor* const address = member.Get();
  member.Release();
  EXPECT_EQ(static_cast<SharedObject*>(address), list_->GetAndRemove(0));
  EXPECT_EQ(2u, list_->Count());
  EXPECT_EQ(a_.Get(), list_->Get(0));
  EXPECT_EQ(b_.Get(), list_->Get(1));
}

TEST_F(SharedObjectListTest, NamesItsCallSites) {
  CallSites sites;
  AutoRelease<Recording<Member>> member(new Recording<Member>(&sites));
  list_->AddToFront(member);
  list_->Remove(member.Get());
  list_->AddToBack(member);
  list_->Remove(std::size_t{0});
  list_->AddToBack(member);
  list_->RemoveAll();

  const std::string file = "source/CoreClasses/SharedObjectList";
  const std::string name = "Orvane::SharedObjectList::";
  EXPECT_EQ((std::vector<CallSite>{{file, name + "AddToFront", 139},
                                   {file, name + "AddToBack", 149},
                                   {file, name + "AddToBack", 149}}),
            sites.added);
  EXPECT_EQ((std::vector<CallSite>{{file, name + "Remove", 163},
                                   {file, name + "Remove", 175},
                                   {file, name + "GetAndRemove", 217}}),
            sites.released);
}

TEST_F(SharedObjectListTest, AddThatFindsNoMemoryChangesNothing) {
  AutoRelease<SharedObjectList> list(new SharedObjectList);
  std::vector<std::unique_ptr<AutoRelease<Member>>> members;
  for (int i = 0; i < 100; ++i) {
    members.push_back(std::make_unique<AutoRelease<Member>>(new Member));
    Member* const member = *members.back();
    for (std::size_t ordinal = 1;; ++ordinal) {
      const AllocationFailure failure(ordinal);
      try {
        EXPECT_TRUE(list->AddToFront(member));
        break;
      } catch (const std::bad_alloc&) {
        EXPECT_EQ(1, member->GetRefCount());
        EXPECT_EQ(SharedObjectList::kIndexInvalid, list->Find(member));
      }
    }
    ASSERT_EQ(members.size(), list->Count());
    for (std::size_t k = 0; k < members.size(); ++k) {
      ASSERT_EQ(members.size() - 1 - k, list->Find(*members[k]));
    }
  }
}

class SharedObjectListGrowthTest : public OrvaneTest {
 protected:
  static constexpr std::size_t kMany = 262144;

  void SetUp() override {
    OrvaneTest::SetUp();
    for (std::size_t i = 0; i < kMany; ++i) {
      members_.push_back(std::make_unique<AutoRelease<Member>>(new Member));
    }
  }
  void TearDown() override {
    members_.clear();
    OrvaneTest::TearDown();
  }

  std::vector<std::unique_ptr<AutoRelease<Member>>> members_;
};

TEST_F(SharedObjectListGrowthTest, AddingFindingAndRemovingByObjectDoNotDependOnTheLength) {
  const auto work = [this](std::size_t count) {
    AutoRelease<SharedObjectList> list(new SharedObjectList);
    for (std::size_t i = 0; i < count; ++i) list->AddToBack(*members_[i]);
    for (std::size_t i = 0; i < count; ++i) EXPECT_EQ(i, list->Find(*members_[i]));
    for (std::size_t i = 0; i < count; ++i) EXPECT_FALSE(list->AddToFront(*members_[i]));
    for (std::size_t i = 1; i < count; i += 2) EXPECT_TRUE(list->Remove(members_[i]->Get()));
    for (std::size_t i = 0; i < count; i += 2) EXPECT_TRUE(list->Remove(members_[i]->Get()));
  };
  EXPECT_TRUE(GrowsLinearly(work, kMany));
}

TEST_F(SharedObjectListGrowthTest, PositionsInAListWithGapsAreFoundQuickly) {
  const auto work = [this](std::size_t count) {
    AutoRelease<SharedObjectList> list(new SharedObjectList);
    for (std::size_t i = 0; i < count; ++i) list->AddToBack(*members_[i]);
    for (std::size_t i = 1; i < count; i += 2) list->Remove(members_[i]->Get());
    for (std::size_t i = 0; i < count / 2; ++i) {
      ASSERT_EQ(members_[2 * i]->Get(), list->Get(i));
      ASSERT_EQ(i, list->Find(*members_[2 * i]));
    }
    while (list->Count() > 0) list->Remove(list->Count() / 2);
  };
  EXPECT_TRUE(GrowsLinearly(work, kMany));
}

}  // namespace
}  // namespace Orvane
