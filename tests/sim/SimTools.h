// Small things that scenarios share.
#pragma once

#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "Orvane.h"
#include "OrvaneSimulator.h"
#include "SimBench.h"
#include "SimMemory.h"

namespace Orvane {

// Threads of the application. Whoever makes it waits for them before he goes.
class Crew {
 public:
  Crew() = default;
  ~Crew() { Join(); }
  Crew(const Crew&) = delete;
  Crew& operator=(const Crew&) = delete;

  // `main` throws nothing: what may fail is made before.
  template <class Main>
  void Start(Main main) {
    const SimulatorAllocations::Exempt exempt;
    ++running_;
    Simulator::Spawn([this, main = std::move(main)]() mutable {
      main();
      --running_;
    });
  }
  void Join() {
    Simulator::WaitUntil([this] { return running_ == 0; });
  }

 private:
  int running_ = 0;
};

struct GiveBack {
  template <class T>
  void operator()(T* object) const {
    object->DecRef("tests/sim/SimTools", "Orvane::GiveBack", __LINE__);
  }
};
// The reference of a creator.
template <class T>
using Held = std::unique_ptr<T, GiveBack>;

// What `make` answers; ends the scenario where the host was made to fail meanwhile.
template <class Make>
auto OrGiveUp(Make make) -> decltype(make()) {
  try {
    return make();
  } catch (const std::bad_alloc&) {
    // Memory is short.
  } catch (const char*) {
    // A thread cannot be started.
  }
  if (!HostHasFailed()) Simulator::Fail("something cannot be made");
  throw SimSetupFailed();
}

inline void Expect(bool holds, const char* what) {
  if (!holds) Simulator::Fail(what);
}

// Memory with a list of one buffer over it, for calls that SimRequest does not make.
class OwnList {
 public:
  explicit OwnList(std::uint64_t size, bool wholePages = true) {
    {
      const SimulatorAllocations::Exempt exempt;
      memory_ = std::make_unique<SimMemory>(size, std::size_t{1}, wholePages);
    }
    const auto piece = memory_->GetPieces().front();
    Held<Buffer> buffer(OrGiveUp([&] { return new HostBuffer(piece.first, piece.second); }));
    list_.reset(OrGiveUp([] { return new BufferList(1); }));
    OrGiveUp([&] { return list_->AddBuffer(buffer.get(), /*adoptReference=*/false); });
  }

  BufferList* Get() const { return list_.get(); }
  // Gives up the reference; the memory stays.
  void ForgetList() { list_.reset(); }
  Buffer* GetBuffer() const { return list_->GetBuffer(0); }
  SimMemory& Memory() const { return *memory_; }

  // Nobody else uses it.
  void CheckAtRest() const {
    Expect(GetBuffer()->GetLockState() == Buffer::kBufferUnlocked, "a buffer is still locked");
    Expect(GetBuffer()->GetRefCount() == 1, "a buffer is still referenced");
    Expect(list_->GetRefCount() == 1, "a list is still referenced");
  }

 private:
  std::unique_ptr<SimMemory> memory_;
  Held<BufferList> list_;
};

}  // namespace Orvane
