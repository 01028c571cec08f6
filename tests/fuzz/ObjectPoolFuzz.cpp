// Sequences, lists and pools of shared objects against plain vectors.
#include <algorithm>
#include <array>
#include <functional>
#include <stdexcept>
#include <vector>

#include "CoreClasses/ObjectSequence.h"
#include "FuzzTools.h"
#include "SharedObjectList.h"

namespace Orvane::Fuzz {
namespace {

constexpr std::size_t kObjects = 48;

class Object : public SharedObject {};

// Made once, and kept alive by one reference each; every other one is a container's.
SharedObject* TheObject(std::size_t number) {
  static const auto* const objects = [] {
    auto* const made = new std::array<SharedObject*, kObjects>;
    for (SharedObject*& object : *made) object = new Object;
    return made;
  }();
  return (*objects)[number % kObjects];
}

using Members = std::vector<SharedObject*>;

std::size_t PositionOf(const Members& members, SharedObject* object) {
  const auto found = std::find(members.begin(), members.end(), object);
  return found == members.end() ? SharedObjectList::kIndexInvalid
                                : static_cast<std::size_t>(found - members.begin());
}

bool Erase(Members* members, SharedObject* object) {
  return std::erase(*members, object) != 0;
}

void ExpectOneReferenceEach() {
  for (std::size_t i = 0; i < kObjects; ++i) ORVANE_FUZZ_CHECK(TheObject(i)->GetRefCount() == 1);
}

class SequenceRun {
 public:
  explicit SequenceRun(Input* input)
      : input_(input), most_(input->Below(4) == 0 ? 6 : kObjects), sequence_(most_) {}

  void Run() {
    while (!input_->IsEmpty()) {
      Step();
      ORVANE_FUZZ_CHECK(sequence_.Count() == model_.size());
    }
    for (std::size_t i = 0; i < model_.size(); ++i) {
      ORVANE_FUZZ_CHECK(sequence_.At(i) == model_[i]);
      ORVANE_FUZZ_CHECK(sequence_.Find(model_[i]) == i);
    }
  }

 private:
  void Step() {
    const unsigned kind = input_->Below(12);
    const std::size_t number = input_->Byte();
    SharedObject* const object = TheObject(number);
    switch (kind) {
      case 0:
      case 1:
        return Push(object, /*front=*/false);
      case 2:
      case 3:
        return Push(object, /*front=*/true);
      case 4:
        for (std::size_t i = 0; i < 20; ++i) Push(TheObject(number + i), /*front=*/false);
        return;
      case 5:
        for (std::size_t i = 0; i < 14; ++i) Take(TheObject(number + 3 * i));
        return;
      case 6:
        ORVANE_FUZZ_CHECK(sequence_.Find(object) == PositionOf(model_, object));
        return;
      case 7:
        if (model_.empty()) return;
        ORVANE_FUZZ_CHECK(sequence_.At(number % model_.size()) == model_[number % model_.size()]);
        return;
      case 8:
        return Reserve(number % 64);
      case 9:  // the oldest goes, as in a queue
        if (model_.empty()) return;
        return Take(model_.front());
      default:
        return Take(object);
    }
  }
  void Push(SharedObject* object, bool front) {
    const bool isThere = PositionOf(model_, object) != SharedObjectList::kIndexInvalid;
    const bool isFull = !isThere && model_.size() >= most_;
    bool pushed = false;
    bool thrown = false;
    try {
      pushed = front ? sequence_.PushFront(object) : sequence_.PushBack(object);
    } catch (const std::length_error&) {
      thrown = true;
    }
    ORVANE_FUZZ_CHECK(thrown == isFull && pushed == (!isThere && !isFull));
    if (pushed) model_.insert(front ? model_.begin() : model_.end(), object);
  }
  void Take(SharedObject* object) {
    ORVANE_FUZZ_CHECK(sequence_.Erase(object) == Orvane::Fuzz::Erase(&model_, object));
  }
  void Reserve(std::size_t members) {
    bool thrown = false;
    try {
      sequence_.Reserve(members);
    } catch (const std::length_error&) {
      thrown = true;
    }
    ORVANE_FUZZ_CHECK(thrown == (members > most_));
  }

  Input* const input_;
  const std::size_t most_;
  ObjectSequence sequence_;
  Members model_;
};

class ListRun : public SharedObjectList::IterateCallback {
 public:
  explicit ListRun(Input* input) : input_(input) {}

  void Run() {
    while (!input_->IsEmpty()) {
      Step();
      ExpectSameEnds();
    }
    for (std::size_t i = 0; i < model_.size(); ++i) ORVANE_FUZZ_CHECK(list_->Get(i) == model_[i]);
    ORVANE_FUZZ_CHECK(!list_->Get(model_.size()));
    list_->DecRef("tests/fuzz", "Orvane::Fuzz::ListRun::Run", 0);
  }

 private:
  SharedObject* TakeObject() {
    const unsigned number = input_->Byte();
    return number == 0xFF ? nullptr : TheObject(number);
  }
  void ExpectSameEnds() {
    const std::size_t count = model_.size();
    ORVANE_FUZZ_CHECK(list_->Count() == count);
    if (count == 0) return;
    ORVANE_FUZZ_CHECK(list_->Get(0) == model_.front());
    ORVANE_FUZZ_CHECK(list_->Get(count - 1) == model_.back());
  }
  void ExpectReferences(SharedObject* object) {
    if (!object) return;
    const bool isMember = PositionOf(model_, object) != SharedObjectList::kIndexInvalid;
    ORVANE_FUZZ_CHECK(object->GetRefCount() == (isMember ? 2 : 1));
  }
  void Step() {
    switch (input_->Below(isIterating_ ? 11 : 12)) {
      case 0:
      case 1:
      case 2:
        return Add(TakeObject(), /*front=*/false);
      case 3:
      case 4:
        return Add(TakeObject(), /*front=*/true);
      case 5:
      case 6: {
        SharedObject* const object = TakeObject();
        ORVANE_FUZZ_CHECK(list_->Remove(object) == Erase(&model_, object));
        return ExpectReferences(object);
      }
      case 7:
        return RemoveAt(input_->Byte() % (model_.size() + 1));
      case 8: {
        SharedObject* const object = TakeObject();
        ORVANE_FUZZ_CHECK(list_->Find(object) == PositionOf(model_, object));
        return;
      }
      case 9: {
        const std::size_t first = input_->Byte();
        for (std::size_t i = 0; i < 18; ++i) Add(TheObject(first + i), /*front=*/false);
        return;
      }
      case 10:
        if (input_->Below(8) != 0) return;
        list_->RemoveAll();
        return model_.clear();
      default:
        return Iterate();
    }
  }
  void Add(SharedObject* object, bool front) {
    const bool isNew = PositionOf(model_, object) == SharedObjectList::kIndexInvalid;
    ORVANE_FUZZ_CHECK((front ? list_->AddToFront(object) : list_->AddToBack(object)) == isNew);
    if (isNew) model_.insert(front ? model_.begin() : model_.end(), object);
    ExpectReferences(object);
  }
  void RemoveAt(std::size_t position) {
    SharedObject* expected = nullptr;
    const bool isThere = position < model_.size();
    if (isThere) {
      expected = model_[position];
      Erase(&model_, expected);
    }
    if (input_->Flag()) {
      ORVANE_FUZZ_CHECK(list_->Remove(position) == isThere);
    } else {
      ORVANE_FUZZ_CHECK(list_->GetAndRemove(position) == expected);
    }
    ExpectReferences(expected);
  }
  void Iterate() {
    isIterating_ = true;
    nextPosition_ = 0;
    isStopped_ = false;
    list_->Iterate(this);
    isIterating_ = false;
    ORVANE_FUZZ_CHECK(isStopped_ || nextPosition_ >= model_.size());
  }
  bool Callback(SharedObject* object, std::size_t index) override {
    ORVANE_FUZZ_CHECK(!isStopped_ && index == nextPosition_ && index < model_.size());
    ORVANE_FUZZ_CHECK(model_[index] == object);
    ++nextPosition_;
    if (!input_->IsEmpty() && input_->Below(3) == 0) Step();
    isStopped_ = input_->Below(8) == 7;
    return !isStopped_;
  }

  Input* const input_;
  SharedObjectList* const list_ = new SharedObjectList;
  Members model_;
  bool isIterating_ = false;
  bool isStopped_ = false;
  std::size_t nextPosition_ = 0;
};

class PoolRun {
 public:
  explicit PoolRun(Input* input)
      : input_(input),
        capacity_(input->Below(kObjects + 1)),
        pool_(new SharedObjectPool(capacity_)) {}

  void Run() {
    while (!input_->IsEmpty()) {
      Step();
      ORVANE_FUZZ_CHECK(pool_->GetTotalNumberOfObjects() == free_.size() + lent_.size());
      ORVANE_FUZZ_CHECK(pool_->GetNumberOfObjectsFree() == free_.size());
      ORVANE_FUZZ_CHECK(pool_->GetNumberOfObjectsInUse() == lent_.size());
    }
    for (SharedObject* const object : free_) ORVANE_FUZZ_CHECK(object->GetRefCount() == 2);
    for (SharedObject* const object : lent_) ORVANE_FUZZ_CHECK(object->GetRefCount() == 2);
    pool_->DecRef("tests/fuzz", "Orvane::Fuzz::PoolRun::Run", 0);
  }

 private:
  void Step() {
    const unsigned kind = input_->Below(8);
    if (kind < 2) return Lend();
    const unsigned number = input_->Byte();
    SharedObject* const object = number == 0xFF ? nullptr : TheObject(number);
    if (kind == 2) {
      Return(object);
    } else if (kind == 3) {
      Return(lent_.empty() ? object : lent_[number % lent_.size()]);
    } else if (kind == 4) {
      const bool expected = Erase(&lent_, object) || Erase(&free_, object);
      ORVANE_FUZZ_CHECK(pool_->DetachObjectFromPool(object) == expected);
    } else if (kind == 5 && number % 16 == 0) {
      pool_->PurgeAllObjects();
      free_.clear();
      lent_.clear();
    } else {
      for (std::size_t i = 0; i < 1 + (number >> 6) * 7; ++i) Add(TheObject(number + i));
      ORVANE_FUZZ_CHECK(!pool_->AddObjectToPool(nullptr));
    }
  }
  // The member returned last is lent first.
  void Lend() {
    SharedObject* const expected = free_.empty() ? nullptr : free_.back();
    ORVANE_FUZZ_CHECK(pool_->GetObjectFromPool() == expected);
    if (!expected) return;
    free_.pop_back();
    lent_.push_back(expected);
  }
  void Return(SharedObject* object) {
    const bool isLent = Erase(&lent_, object);
    ORVANE_FUZZ_CHECK(pool_->ReturnObjectToPool(object) == isLent);
    if (isLent) free_.push_back(object);
  }
  // One that is lent is not offered again: it would be in both lists.
  void Add(SharedObject* object) {
    if (PositionOf(lent_, object) != SharedObjectList::kIndexInvalid) return;
    const bool isNew = PositionOf(free_, object) == SharedObjectList::kIndexInvalid &&
                       free_.size() + lent_.size() < capacity_;
    ORVANE_FUZZ_CHECK(pool_->AddObjectToPool(object) == isNew);
    if (isNew) free_.push_back(object);
  }

  Input* const input_;
  const std::size_t capacity_;
  SharedObjectPool* const pool_;
  Members free_;  // lent from the back
  Members lent_;
};

}  // namespace
}  // namespace Orvane::Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace Orvane::Fuzz;
  TheObject(0);
  const LeakCheck leaks;
  Input input(data, size);
  switch (input.Below(3)) {
    case 0:
      SequenceRun(&input).Run();
      break;
    case 1:
      ListRun(&input).Run();
      break;
    default:
      PoolRun(&input).Run();
      break;
  }
  ExpectOneReferenceEach();
  return 0;
}
