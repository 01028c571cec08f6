// Threads, waiting, and the objects that threads share.
#include <array>
#include <string>
#include <vector>

#include "Scenario.h"
#include "SimBench.h"
#include "SimTools.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kPage = SimFileModel::kPage;
constexpr const char* kFile = "tests/sim/CoreScenarios";

// Works until it is asked to finish; whoever asks wakes it.
class Worker : public MTThreadBody {
 public:
  explicit Worker(MTSemaphore* wakeUp) : wakeUp_(wakeUp) {}
  void ThreadMain(MTThread* thread) override {
    while (!thread->IsTerminating()) {
      isBusy = true;
      wakeUp_->Wait(0xFFFFFFFF, 1);
    }
    if (throws) throw 1;
    hasEnded = true;
  }

  bool asksForWakeUp = true;
  bool throws = false;
  bool hasEnded = false;
  bool isBusy = false;

 protected:
  void TerminateBody() override {
    if (asksForWakeUp) wakeUp_->Release(1);
  }

 private:
  MTSemaphore* const wakeUp_;
};

std::unique_ptr<MTSemaphore> NewSemaphore(std::uint32_t most, std::uint32_t count) {
  return std::unique_ptr<MTSemaphore>(
      OrGiveUp([=] { return MTInterface::NewSemaphore(most, count); }));
}

std::unique_ptr<MTThread> NewThread(MTThreadBody* body, MTThread::MTPriority priority) {
  return std::unique_ptr<MTThread>(
      OrGiveUp([=] { return MTInterface::NewThread(body, priority, MTThread::kProcessorAny); }));
}

ORVANE_SMALL_SCENARIO(ThreadEnds, "A thread is asked to finish, then deleted.") {
  const std::unique_ptr<MTSemaphore> wakeUp = NewSemaphore(1, 0);
  Worker body(wakeUp.get());
  const std::unique_ptr<MTThread> thread = NewThread(&body, MTThread::kPriorityHighest);
  Expect(thread->Terminate(0xFFFFFFFF), "a thread does not end");
  Expect(body.hasEnded, "a thread is reported as ended and goes on");
  Expect(!thread->Terminate(0xFFFFFFFF), "a thread ends twice");
}

ORVANE_SCENARIO(ThreadsTerminateOneAnother,
                "Two ask one thread to finish at once; both hear of it.") {
  const std::unique_ptr<MTSemaphore> wakeUp = NewSemaphore(4, 0);
  Worker body(wakeUp.get());
  body.throws = Simulator::Random(3) == 0;
  const std::unique_ptr<MTThread> thread = NewThread(&body, MTThread::kPriorityLowest);
  int told = 0;
  Crew crew;
  for (int k = 0; k < 2; ++k) {
    crew.Start([&thread, &told] {
      if (thread->Terminate(0xFFFFFFFF)) ++told;
    });
  }
  wakeUp->Release(1);
  crew.Join();
  // Who comes when it has been reaped is told no.
  Expect(told >= 1, "nobody hears of the end");
  Expect(body.hasEnded != body.throws, "a thread is reported as ended and goes on");
  const SimulatorAllocations::Exempt exempt;
  const bool logged = !Simulator::TakeDebugText().empty();
  Expect(logged == body.throws, "what a thread threw is not logged, or something else is");
}

ORVANE_SCENARIO(ThreadIsSlowToEnd,
                "Terminate gives up after its time, and works when asked again.") {
  const std::unique_ptr<MTSemaphore> wakeUp = NewSemaphore(1, 0);
  Worker body(wakeUp.get());
  body.asksForWakeUp = false;
  const std::unique_ptr<MTThread> thread = NewThread(&body, MTThread::kPriorityNormal);
  Simulator::WaitUntil([&body] { return body.isBusy; });
  const std::uint64_t start = Simulator::GetTimeMicro();
  const std::uint32_t ms = 1 + static_cast<std::uint32_t>(Simulator::Random(3000));
  Expect(!thread->Terminate(ms), "a thread is reported as ended and goes on");
  Expect(Simulator::GetTimeMicro() - start >= std::uint64_t{ms} * 1000, "it gave up early");
  Expect(thread->IsTerminating(), "the request to finish is forgotten");
  wakeUp->Release(1);
  Expect(thread->Terminate(0xFFFFFFFF), "a thread does not end");
}

ORVANE_SCENARIO(Waiting, "Sleeps and waits take the time that they were given.") {
  const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(3, 0);
  const std::uint64_t start = Simulator::GetTimeMicro();
  const std::uint64_t startByLibrary = MTInterface::GetCurrentTimeMicro();
  Expect(startByLibrary >= start, "the clock goes backwards");
  MTInterface::Sleep(20);
  Expect(Simulator::GetTimeMicro() - start >= 20000, "a sleep was short");
  Expect(!semaphore->Wait(30, 1), "a semaphore without units gives one");
  Expect(Simulator::GetTimeMicro() - start >= 50000, "a wait was short");
  Expect(semaphore->Wait(0, 0), "nothing is there for everybody");
  Expect(!semaphore->Release(4), "more units than there may be");
  Crew crew;
  crew.Start([&semaphore] {
    MTInterface::Sleep(5);
    semaphore->Release(2);
    semaphore->Release(1);
  });
  Expect(semaphore->Wait(0xFFFFFFFF, 3), "endless waits end");
  crew.Join();
  Expect(!semaphore->Wait(0, 1), "a unit was given twice");
}

// Two threads want two units each, within a time, of which three come.
ORVANE_SCENARIO(UnitsOfASemaphore,
                "Units are given once, and those of a wait that failed are gone.") {
  const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(4, 0);
  std::array<bool, 2> got{};
  Crew crew;
  for (std::size_t k = 0; k < got.size(); ++k) {
    crew.Start([&semaphore, &got, k] { got[k] = semaphore->Wait(2000, 2); });
  }
  for (int k = 0; k < 3; ++k) Expect(semaphore->Release(1), "a unit is refused");
  crew.Join();
  Expect(!got[0] || !got[1], "three units were four");
  Expect(!semaphore->Wait(0, 3), "units that were given come back");
}

// Says when it goes.
class Watched : public SharedObject {
 public:
  explicit Watched(int* destroyed) : destroyed_(destroyed) {}
  int value = 0;  // guarded by the modify lock
  int twice = 0;

 protected:
  ~Watched() override {
    ++*destroyed_;
    Simulator::Step();
  }

 private:
  int* const destroyed_;
};

ORVANE_SCENARIO(SharedByThreads,
                "The last of three threads that lets go of an object destroys it.") {
  int destroyed = 0;
  Watched* const object = OrGiveUp([&destroyed] { return new Watched(&destroyed); });
  Crew crew;
  for (int thread = 0; thread < 3; ++thread) {
    object->AddRef(kFile, "SharedByThreads", __LINE__);
    crew.Start([object, &destroyed] {
      for (int k = 0; k < 2; ++k) {
        const SharedObjectAutoRef keep(object);
        object->BeginThreadSafeModify();
        ++object->value;
        Simulator::Step();
        object->twice += 2;
        Expect(object->twice == 2 * object->value, "two threads modify an object at once");
        object->FinishThreadSafeModify();
      }
      Expect(destroyed == 0, "an object is destroyed while it is held");
      object->DecRef(kFile, "SharedByThreads", __LINE__);
    });
  }
  Expect(object->GetRefCount() >= 1, "a reference is missing");
  object->DecRef(kFile, "SharedByThreads", __LINE__);
  crew.Join();
  Expect(destroyed == 1, "an object is not destroyed once");
}

ORVANE_SMALL_SCENARIO(LastReferences, "Two threads let go of an object at once.") {
  int destroyed = 0;
  Watched* const object = OrGiveUp([&destroyed] { return new Watched(&destroyed); });
  object->AddRef(kFile, "LastReferences", __LINE__);
  Crew crew;
  crew.Start([object] { object->DecRef(kFile, "LastReferences", __LINE__); });
  object->DecRef(kFile, "LastReferences", __LINE__);
  crew.Join();
  Expect(destroyed == 1, "an object is not destroyed once");
}

// What is lent to one of several threads, by number; -1: to nobody.
class Lending {
 public:
  void Borrow(const void* object, int thread) {
    const SimulatorAllocations::Exempt exempt;
    for (const auto& [lent, to] : lent_) Expect(lent != object, "lent to two at once");
    lent_.emplace_back(object, thread);
  }
  void Return(const void* object) {
    std::erase_if(lent_, [object](const auto& entry) { return entry.first == object; });
  }

 private:
  std::vector<std::pair<const void*, int>> lent_;
};

ORVANE_SCENARIO(FactoryOfThreads, "Three threads borrow the two buffers of a factory.") {
  constexpr std::size_t kBuffers = 2;
  const bool onHeap = Simulator::Random(2) == 0;
  const Held<BufferFactory> factory(OrGiveUp([onHeap]() -> BufferFactory* {
    if (onHeap) return new BufferFactoryHeap;
    return new BufferFactoryPhysMem;
  }));
  if (!OrGiveUp([&] { return factory->Initialize(kPage, kBuffers, kBuffers, 0); })) {
    Expect(Simulator::GetFaults() != 0, "a factory cannot make its buffers");
    return;
  }
  Lending lending;
  Crew crew;
  for (int thread = 0; thread < 3; ++thread) {
    crew.Start([&factory, &lending, thread] {
      for (int k = 0; k < 4; ++k) {
        Buffer* const buffer = factory->GetBufferFromFactory();
        if (!buffer) continue;
        lending.Borrow(buffer, thread);
        Expect(buffer->GetSize() == kPage, "a buffer of another size");
        Simulator::Step();
        lending.Return(buffer);
        Expect(factory->ReturnBufferToFactory(buffer), "a buffer is not taken back");
      }
    });
  }
  const std::size_t free = factory->GetNumberOfBuffersFree();
  Expect(free <= kBuffers && factory->GetTotalNumberOfBuffers() == kBuffers, "a buffer too many");
  crew.Join();
  Expect(factory->GetNumberOfBuffersFree() == kBuffers, "a buffer has gone");
  Expect(factory->GetNumberOfBuffersInUse() == 0, "a buffer is still lent");
}

ORVANE_SCENARIO(PoolOfThreads, "Two threads borrow from a pool while a third takes members out.") {
  constexpr std::size_t kMembers = 3;
  int destroyed = 0;
  {
    std::array<Held<Watched>, kMembers> members;
    const Held<SharedObjectPool> pool(OrGiveUp([] { return new SharedObjectPool(kMembers); }));
    for (auto& member : members) {
      member.reset(OrGiveUp([&destroyed] { return new Watched(&destroyed); }));
      Expect(OrGiveUp([&] { return pool->AddObjectToPool(member.get()); }), "a member is refused");
    }
    Lending lending;
    bool detached = false;
    Crew crew;
    for (int thread = 0; thread < 2; ++thread) {
      crew.Start([&, thread] {
        for (int k = 0; k < 3; ++k) {
          SharedObject* const member = pool->GetObjectFromPool();
          if (!member) continue;
          lending.Borrow(member, thread);
          Simulator::Step();
          lending.Return(member);
          const bool mayBeGone = member == members[0].get();
          Expect(pool->ReturnObjectToPool(member) || mayBeGone, "a member is not taken back");
        }
      });
    }
    crew.Start([&] { detached = pool->DetachObjectFromPool(members[0].get()); });
    crew.Join();
    Expect(detached, "a member cannot be taken out");
    Expect(members[0]->GetRefCount() == 1, "the pool keeps what was taken out");
    Expect(pool->GetTotalNumberOfObjects() == kMembers - 1, "a member has gone");
    Expect(pool->GetNumberOfObjectsFree() == kMembers - 1, "a member is still lent");
  }
  Expect(destroyed == static_cast<int>(kMembers), "an object is left over");
}

ORVANE_SCENARIO(ListThatOthersLookAt, "Three threads look at one list while it is read into.") {
  constexpr std::size_t kBuffers = 4;
  SimFileModel& file = bench.NewFile(kPage);
  SimSource& source = bench.NewSource(file);
  const OwnList read(kPage);
  const Held<BufferList> list(OrGiveUp([] { return new BufferList(1); }));
  for (std::size_t k = 0; k < kBuffers; ++k) {
    const Held<Buffer> buffer(OrGiveUp([k] { return new HeapBuffer(100 * (k + 1)); }));
    OrGiveUp([&] { return list->AddBuffer(buffer.get(), /*adoptReference=*/false); });
  }
  Crew crew;
  for (int thread = 0; thread < 3; ++thread) {
    crew.Start([&list, &read] {
      const SharedObjectAutoRef keep(list.get());
      Expect(list->GetTotalSizeOfBuffers() == 1000, "the sizes add up to something else");
      std::size_t place = 0;
      std::size_t left = 0;
      Buffer* const buffer = list->GetBufferAtOffset(350, &place, &left);
      Expect(buffer == list->GetBuffer(2) && place == 50 && left == 250, "a wrong place");
      Expect(!list->GetBufferAtOffset(1000, nullptr, nullptr), "there is something past the end");
      Expect(read.Get()->GetTotalSizeOfBuffers() == kPage, "a list in use looks different");
      Expect(read.Get()->GetBufferAtOffset(5, nullptr, nullptr) == read.GetBuffer(), "or is");
    });
  }
  try {
    source.Get()->ReadWithList(0, read.Get(), nullptr);
  } catch (const std::bad_alloc&) {
    // Memory was short.
  }
  crew.Join();
  read.CheckAtRest();
}

}  // namespace
}  // namespace Orvane
