#include "Cache/CommandQueue.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "AllocationCounter.h"
#include "Cache/Command.h"
#include "MTInterface.h"
#include "OrvaneTest.h"

namespace Orvane {
namespace {

class NamedCommand : public Command {
 public:
  NamedCommand(int name, std::uint32_t dueTime) : Command(kCommandRead, dueTime), name_(name) {}
  bool Execute() override { return true; }
  void Finish(bool) override {}
  int GetName() const { return name_; }

 private:
  const int name_;
};

class NameFinder : public SortedObjectFinder {
 public:
  explicit NameFinder(std::function<bool(int)> matches) : matches_(std::move(matches)) {}
  bool Check(SortedObject* object) override {
    const int name = static_cast<NamedCommand*>(object)->GetName();
    asked_.push_back(name);
    return matches_(name);
  }
  const std::vector<int>& GetAsked() const { return asked_; }

 private:
  const std::function<bool(int)> matches_;
  std::vector<int> asked_;
};

class CommandQueueTest : public OrvaneTest {
 protected:
  void Add(int name, std::uint32_t dueInMs) {
    commands_.push_back(std::make_unique<NamedCommand>(name, now_ + dueInMs));
    queue_->Add(commands_.back().get());
  }
  std::vector<int> TakeAll() {
    std::vector<int> names;
    while (Command* const command = queue_->RemoveFirst()) {
      names.push_back(static_cast<NamedCommand*>(command)->GetName());
    }
    return names;
  }
  void TearDown() override {
    queue_.reset();
    OrvaneTest::TearDown();
  }

  const std::uint32_t now_ = MTInterface::GetCurrentTimeMilli() + 1000;
  std::vector<std::unique_ptr<NamedCommand>> commands_;
  std::unique_ptr<CommandQueue> queue_ = std::make_unique<CommandQueue>();
};

TEST_F(CommandQueueTest, AnEmptyQueueHasNothing) {
  NameFinder all([](int) { return true; });
  EXPECT_EQ(nullptr, queue_->GetFirst());
  EXPECT_EQ(nullptr, queue_->RemoveFirst());
  EXPECT_EQ(nullptr, queue_->FindAndRemove(&all));
  queue_->RemoveAllMatching(&all);
  EXPECT_TRUE(all.GetAsked().empty());
  EXPECT_EQ(0u, queue_->GetCount());
}

TEST_F(CommandQueueTest, OrderIsByDueTimeAndFirstComeFirstServedAmongEquals) {
  Add(1, 500);
  Add(2, 100);
  Add(3, 500);
  Add(4, 100);
  Add(5, 300);
  EXPECT_EQ(5u, queue_->GetCount());
  EXPECT_EQ(2, static_cast<NamedCommand*>(queue_->GetFirst())->GetName());
  EXPECT_EQ((std::vector<int>{2, 4, 5, 1, 3}), TakeAll());
}

TEST_F(CommandQueueTest, AsSoonAsPossibleComesBeforeEveryDueTime) {
  Add(1, 0);
  commands_.push_back(std::make_unique<NamedCommand>(2, 0));
  queue_->Add(commands_.back().get());
  EXPECT_EQ((std::vector<int>{2, 1}), TakeAll());
}

TEST_F(CommandQueueTest, FindingTakesTheFirstThatMatchesWhereverItStands) {
  for (int name = 0; name < 20; ++name)
    Add(name, static_cast<std::uint32_t>(100 * (name * 7 % 20)));
  NameFinder odd([](int name) { return name % 2 == 1; });
  Command* const found = queue_->FindAndRemove(&odd);
  EXPECT_EQ(3, static_cast<NamedCommand*>(found)->GetName());  // due second of all, 7 * 3 % 20
  NameFinder none([](int) { return false; });
  EXPECT_EQ(nullptr, queue_->FindAndRemove(&none));
  EXPECT_EQ(19u, queue_->GetCount());
  const std::vector<int> rest = TakeAll();
  EXPECT_TRUE(std::is_sorted(rest.begin(), rest.end(),
                             [](int a, int b) { return a * 7 % 20 < b * 7 % 20; }));
}

TEST_F(CommandQueueTest, TheFirstOfAllIsFoundWithOneQuestion) {
  for (int name = 0; name < 100; ++name) Add(name, static_cast<std::uint32_t>(name));
  NameFinder any([](int) { return true; });
  ASSERT_EQ(commands_[0].get(), queue_->FindAndRemove(&any));
  EXPECT_EQ(std::vector<int>{0}, any.GetAsked());
}

TEST_F(CommandQueueTest, RemovingAsksInOrderAndLeavesTheRestInOrder) {
  for (int name = 0; name < 50; ++name) Add(name, static_cast<std::uint32_t>(name * 13 % 50));
  const auto place = [](int name) { return name * 13 % 50; };
  NameFinder third([place](int name) { return place(name) % 3 == 0; });
  queue_->RemoveAllMatching(&third);
  ASSERT_EQ(50u, third.GetAsked().size());
  for (int k = 0; k < 50; ++k) EXPECT_EQ(k, place(third.GetAsked()[static_cast<std::size_t>(k)]));
  Add(50, 20);  // behind the one that is due at the same time
  std::vector<int> expected;
  for (int k = 0; k < 50; ++k) {
    if (k % 3 == 0) continue;
    expected.push_back(third.GetAsked()[static_cast<std::size_t>(k)]);
    if (k == 20) expected.push_back(50);
  }
  EXPECT_EQ(expected, TakeAll());
}

TEST_F(CommandQueueTest, WhatComesWhileOthersAreTakenGoesToItsPlace) {
  Add(1, 100);
  Add(2, 300);
  EXPECT_EQ(commands_[0].get(), queue_->RemoveFirst());
  Add(3, 200);
  Add(4, 50);
  Add(5, 300);  // behind the one that is due at the same time
  EXPECT_EQ((std::vector<int>{4, 3, 2, 5}), TakeAll());
  EXPECT_TRUE(queue_->IsEmpty());
}

TEST_F(CommandQueueTest, ManyWithEqualDueTimesStayInTheOrderInWhichTheyCame) {
  struct Due {
    std::uint32_t time;
    int name;
  };
  std::vector<Due> dues;
  for (int name = 0; name < 1200; ++name) {
    // Many that come late are due earlier than the first few, many later.
    const auto time = static_cast<std::uint32_t>(name < 200 ? 100 + name % 5 : 90 + name % 30);
    Add(name, time);
    dues.push_back({time, name});
    if (name == 199) {
      EXPECT_EQ(commands_[0].get(), queue_->RemoveFirst());
    }
  }
  dues.erase(dues.begin());
  std::stable_sort(dues.begin(), dues.end(),
                   [](const Due& a, const Due& b) { return a.time < b.time; });
  std::vector<int> expected;
  for (const Due& due : dues) expected.push_back(due.name);
  EXPECT_EQ(expected, TakeAll());
}

TEST_F(CommandQueueTest, RemovingAsksThoseThatCameLateInOrderToo) {
  for (int name = 0; name < 50; ++name) Add(name, static_cast<std::uint32_t>(name * 13 % 50));
  EXPECT_EQ(commands_[0].get(), queue_->RemoveFirst());
  for (int name = 50; name < 100; ++name) Add(name, static_cast<std::uint32_t>(name * 13 % 50));
  NameFinder even([](int name) { return name % 2 == 0; });
  queue_->RemoveAllMatching(&even);
  ASSERT_EQ(99u, even.GetAsked().size());
  EXPECT_TRUE(std::is_sorted(even.GetAsked().begin(), even.GetAsked().end(), [](int a, int b) {
    return a * 13 % 50 != b * 13 % 50 ? a * 13 % 50 < b * 13 % 50 : a < b;
  }));
  std::vector<int> expected;
  for (const int name : even.GetAsked()) {
    if (name % 2 == 1) expected.push_back(name);
  }
  EXPECT_EQ(expected, TakeAll());
}

TEST_F(CommandQueueTest, TheFirstIsTakenOnlyIfItMatches) {
  NameFinder two([](int name) { return name == 2; });
  EXPECT_EQ(nullptr, queue_->RemoveFirstIf(&two));
  Add(1, 100);
  Add(2, 200);
  EXPECT_EQ(nullptr, queue_->RemoveFirstIf(&two));
  Add(2, 50);
  EXPECT_EQ(commands_[2].get(), queue_->RemoveFirstIf(&two));
  EXPECT_EQ(commands_[0].get(), queue_->RemoveFirst());
  EXPECT_EQ(commands_[1].get(), queue_->RemoveFirstIf(&two));
  EXPECT_EQ((std::vector<int>{1, 2, 2}), two.GetAsked());
}

TEST_F(CommandQueueTest, AnAddForWhichThereIsNoMemoryChangesNothing) {
  Add(1, 100);
  NamedCommand late(2, now_ + 50);
  std::size_t added = 0;
  bool happened = false;
  while (!happened) {
    AllocationFailure failure(1);
    try {
      queue_->Add(&late);
      ++added;
    } catch (const std::bad_alloc&) {
      happened = true;
    }
  }
  EXPECT_EQ(1 + added, queue_->GetCount());
  Add(3, 10);
  std::vector<int> expected(added, 2);
  expected.insert(expected.begin(), 3);
  expected.push_back(1);
  EXPECT_EQ(expected, TakeAll());
}

TEST_F(CommandQueueTest, TakingNeedsNoMemory) {
  std::vector<int> expected;
  for (int name = 0; name < 500; ++name) {
    Add(name, static_cast<std::uint32_t>((name + 250) % 500));
    expected.push_back((name + 250) % 500);
  }
  Command* first = nullptr;
  {
    AllocationFailure failure(1);
    first = queue_->RemoveFirst();
    EXPECT_TRUE(failure.HasHappened());
  }
  EXPECT_EQ(commands_[250].get(), first);
  expected.erase(expected.begin());
  EXPECT_EQ(expected, TakeAll());
}

TEST_F(CommandQueueTest, AgreesWithASortedVector) {
  std::mt19937 random(1);
  struct Known {
    std::uint64_t key;
    int name;
  };
  std::vector<Known> known;  // in order
  for (int step = 0; step < 20000; ++step) {
    const auto choice = random() % 8;
    if (choice < 4) {
      Add(step, static_cast<std::uint32_t>(random() % 50));
      const Known added{commands_.back()->GetSortKey(), step};
      known.insert(std::upper_bound(known.begin(), known.end(), added,
                                    [](const Known& a, const Known& b) { return a.key < b.key; }),
                   added);
    } else if (choice < 7) {
      Command* const first = queue_->RemoveFirst();
      ASSERT_EQ(known.empty(), first == nullptr);
      if (!first) continue;
      ASSERT_EQ(known.front().name, static_cast<NamedCommand*>(first)->GetName());
      known.erase(known.begin());
    } else {
      const int remainder = static_cast<int>(random() % 7);
      NameFinder finder([remainder](int name) { return name % 7 == remainder; });
      Command* const found = queue_->FindAndRemove(&finder);
      const auto expected = std::find_if(known.begin(), known.end(), [remainder](const Known& k) {
        return k.name % 7 == remainder;
      });
      ASSERT_EQ(expected == known.end(), found == nullptr);
      if (!found) continue;
      ASSERT_EQ(expected->name, static_cast<NamedCommand*>(found)->GetName());
      known.erase(expected);
    }
    ASSERT_EQ(known.size(), queue_->GetCount());
  }
}

TEST_F(CommandQueueTest, ThreadsLoseNothing) {
  constexpr int kEach = 2000;
  for (int name = 0; name < 3 * kEach; ++name) {
    commands_.push_back(
        std::make_unique<NamedCommand>(name, now_ + static_cast<std::uint32_t>(name * 31 % 997)));
  }
  std::vector<std::thread> adders;
  for (int k = 0; k < 3; ++k) {
    adders.emplace_back([this, k] {
      for (int name = k * kEach; name < (k + 1) * kEach; ++name) {
        queue_->Add(commands_[static_cast<std::size_t>(name)].get());
      }
    });
  }
  std::vector<bool> taken(3 * kEach, false);
  int count = 0;
  while (count < 3 * kEach) {
    Command* const command = queue_->RemoveFirst();
    if (!command) {
      std::this_thread::yield();
      continue;
    }
    const auto name = static_cast<std::size_t>(static_cast<NamedCommand*>(command)->GetName());
    ASSERT_FALSE(taken[name]);
    taken[name] = true;
    ++count;
  }
  for (std::thread& adder : adders) adder.join();
  EXPECT_EQ(0u, queue_->GetCount());
}

}  // namespace
}  // namespace Orvane
