#include <memory>

#include "OrvaneTest.h"
#include "SharedObjectList.h"

namespace Orvane {
namespace {

class Member : public SharedObject {};

class SharedObjectPoolTest : public OrvaneTest {
 protected:
  AutoRelease<SharedObjectPool> pool_{new SharedObjectPool(2)};
  AutoRelease<Member> a_{new Member};
  AutoRelease<Member> b_{new Member};
  AutoRelease<Member> c_{new Member};

  void TearDown() override {
    pool_.Release();
    a_.Release();
    b_.Release();
    c_.Release();
    OrvaneTest::TearDown();
  }
  void ExpectCounts(std::size_t free, std::size_t inUse) {
    EXPECT_EQ(free, pool_->GetNumberOfObjectsFree());
    EXPECT_EQ(inUse, pool_->GetNumberOfObjectsInUse());
    EXPECT_EQ(free + inUse, pool_->GetTotalNumberOfObjects());
  }
};

TEST_F(SharedObjectPoolTest, AcceptsNoMoreThanItsCapacity) {
  EXPECT_TRUE(pool_->AddObjectToPool(a_));
  EXPECT_TRUE(pool_->AddObjectToPool(b_));
  EXPECT_FALSE(pool_->AddObjectToPool(c_));
  EXPECT_EQ(1, c_->GetRefCount());
  ExpectCounts(2, 0);
  EXPECT_NE(nullptr, pool_->GetObjectFromPool());
  ExpectCounts(1, 1);
  EXPECT_FALSE(pool_->AddObjectToPool(c_));
}

TEST_F(SharedObjectPoolTest, RefusesNullAndASecondAdd) {
  EXPECT_FALSE(pool_->AddObjectToPool(nullptr));
  EXPECT_TRUE(pool_->AddObjectToPool(a_));
  EXPECT_FALSE(pool_->AddObjectToPool(a_));
  ExpectCounts(1, 0);
}

TEST_F(SharedObjectPoolTest, LendsTheMemberReturnedLast) {
  pool_->AddObjectToPool(a_);
  pool_->AddObjectToPool(b_);
  EXPECT_EQ(b_.Get(), pool_->GetObjectFromPool());
  EXPECT_EQ(a_.Get(), pool_->GetObjectFromPool());
  EXPECT_EQ(nullptr, pool_->GetObjectFromPool());
  EXPECT_TRUE(pool_->ReturnObjectToPool(a_));
  EXPECT_TRUE(pool_->ReturnObjectToPool(b_));
  EXPECT_EQ(b_.Get(), pool_->GetObjectFromPool());
}

TEST_F(SharedObjectPoolTest, TakesBackOnlyWhatIsLent) {
  pool_->AddObjectToPool(a_);
  EXPECT_FALSE(pool_->ReturnObjectToPool(a_));
  EXPECT_FALSE(pool_->ReturnObjectToPool(c_));
  EXPECT_FALSE(pool_->ReturnObjectToPool(nullptr));
  ExpectCounts(1, 0);
}

TEST_F(SharedObjectPoolTest, HoldsOneReferenceFreeOrLent) {
  pool_->AddObjectToPool(a_);
  EXPECT_EQ(2, a_->GetRefCount());
  pool_->GetObjectFromPool();
  EXPECT_EQ(2, a_->GetRefCount());
  pool_->ReturnObjectToPool(a_);
  EXPECT_EQ(2, a_->GetRefCount());
}

TEST_F(SharedObjectPoolTest, DetachTakesOutFreeAndLentMembers) {
  pool_->AddObjectToPool(a_);
  pool_->AddObjectToPool(b_);
  pool_->GetObjectFromPool();
  EXPECT_TRUE(pool_->DetachObjectFromPool(b_));
  EXPECT_TRUE(pool_->DetachObjectFromPool(a_));
  EXPECT_FALSE(pool_->DetachObjectFromPool(a_));
  ExpectCounts(0, 0);
  EXPECT_EQ(1, a_->GetRefCount());
  EXPECT_EQ(1, b_->GetRefCount());
}

TEST_F(SharedObjectPoolTest, PurgeAndDestructionReleaseFreeAndLentMembers) {
  pool_->AddObjectToPool(a_);
  pool_->AddObjectToPool(b_);
  pool_->GetObjectFromPool();
  pool_->PurgeAllObjects();
  ExpectCounts(0, 0);
  EXPECT_EQ(1, a_->GetRefCount());
  EXPECT_EQ(1, b_->GetRefCount());

  pool_->AddObjectToPool(a_);
  pool_->AddObjectToPool(b_);
  pool_->GetObjectFromPool();
  pool_.Release();
  EXPECT_EQ(1, a_->GetRefCount());
  EXPECT_EQ(1, b_->GetRefCount());
}

TEST_F(SharedObjectPoolTest, MemberIsUnreferencedByThePoolWhileItMovesToTheLentOnes) {
  CallSites sites;
  AutoRelease<Recording<Member>> member(new Recording<Member>(&sites));
  pool_->AddObjectToPool(member);
  pool_->GetObjectFromPool();
  const std::string file = "source/CoreClasses/SharedObjectList";
  EXPECT_EQ((std::vector<CallSite>{{file, "Orvane::SharedObjectList::GetAndRemove", 217}}),
            sites.released);
  EXPECT_EQ((std::vector<CallSite>{{file, "Orvane::SharedObjectList::AddToFront", 139},
                                   {file, "Orvane::SharedObjectList::AddToFront", 139}}),
            sites.added);
  pool_.Release();
}

TEST_F(SharedObjectPoolTest, ConstructorThatFailsLeavesNothingBehind) {
  for (long ordinal = 1; ordinal <= 7; ++ordinal) {
    if (ordinal % 2 == 0) continue;  // the second half of a shared object: not this class's care
    TestMTInterface::Get().FailCreation(ordinal, TestMTInterface::kThrow);
    EXPECT_THROW(new SharedObjectPool(1), std::bad_alloc) << ordinal;
  }
}

class SharedObjectPoolGrowthTest : public OrvaneTest {
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
  void Fill(SharedObjectPool* pool, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) ASSERT_TRUE(pool->AddObjectToPool(*members_[i]));
  }
  // Lends all members and takes them back in the order in which they were lent, which empties the
  // list of lent ones from its far end, or in a scattered one.
  void LendAndReturnAll(SharedObjectPool* pool, std::size_t count, std::size_t stride) {
    std::vector<SharedObject*> lent;
    while (SharedObject* const member = pool->GetObjectFromPool()) lent.push_back(member);
    ASSERT_EQ(count, lent.size());
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_TRUE(pool->ReturnObjectToPool(lent[i * stride % count]));
    }
  }

  std::vector<std::unique_ptr<AutoRelease<Member>>> members_;
};

TEST_F(SharedObjectPoolGrowthTest, LendingAndReturningDoNotDependOnTheSize) {
  const auto work = [this](std::size_t count) {
    AutoRelease<SharedObjectPool> pool(new SharedObjectPool(count));
    Fill(pool, count);
    LendAndReturnAll(pool, count, 1);
    LendAndReturnAll(pool, count, 12345);
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_TRUE(pool->DetachObjectFromPool(*members_[i * 12345 % count]));
    }
  };
  EXPECT_TRUE(GrowsLinearly(work, kMany));
}

TEST_F(SharedObjectPoolGrowthTest, LendingAndReturningAllocateNothing) {
  constexpr std::size_t kCount = 1000;
  AutoRelease<SharedObjectPool> pool(new SharedObjectPool(kCount));
  Fill(pool, kCount);
  std::vector<SharedObject*> lent;
  lent.reserve(kCount);
  const std::size_t before = AllocationCounter::Count();
  for (int round = 0; round < 10; ++round) {
    lent.clear();
    while (SharedObject* const member = pool->GetObjectFromPool()) lent.push_back(member);
    for (std::size_t i = 0; i < kCount; ++i) pool->ReturnObjectToPool(lent[i * 37 % kCount]);
  }
  EXPECT_EQ(before, AllocationCounter::Count());
}

}  // namespace
}  // namespace Orvane
