// What the library runs on in the fuzz targets: one thread. Its locks lock nothing, but they notice
// a leave too many and a section that is deleted while it is held; no I/O thread is started.
#include <cstdio>
#include <cstdlib>

#include "FuzzTools.h"
#include "MTInterface.h"
#include "PhysMemInterface.h"

namespace Orvane::Fuzz {
namespace {

long livePrimitives = 0;

struct LiveMark {
  LiveMark() { ++livePrimitives; }
  ~LiveMark() { --livePrimitives; }
  LiveMark(const LiveMark&) = delete;
  LiveMark& operator=(const LiveMark&) = delete;
};

class CritSec : public MTCritSec {
 public:
  ~CritSec() override { ORVANE_FUZZ_CHECK(depth_ == 0); }
  void Enter() override ORVANE_NO_THREAD_SAFETY_ANALYSIS { ++depth_; }
  void Leave() override ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    ORVANE_FUZZ_CHECK(depth_ > 0);
    --depth_;
  }

 private:
  const LiveMark mark_;
  long depth_ = 0;
};

// Nobody else is there to release it.
class Semaphore : public MTSemaphore {
 public:
  Semaphore(std::uint32_t maxCount, std::uint32_t initialCount)
      : MTSemaphore(maxCount, initialCount), maxCount_(maxCount), count_(initialCount) {}
  bool Release(std::uint32_t count) override {
    if (count > maxCount_ - count_) return false;
    count_ += count;
    return true;
  }
  bool Wait(std::uint32_t, std::uint32_t count) override {
    const std::uint32_t taken = count < count_ ? count : count_;
    count_ -= taken;
    return taken == count;
  }

 private:
  const LiveMark mark_;
  const std::uint32_t maxCount_;
  std::uint32_t count_;
};

template <typename Base, typename Value>
class Atomic : public Base {
 public:
  explicit Atomic(Value initial) : Base(initial), value_(initial) {}
  Value Get() override { return value_; }
  Value Increment() override { return ++value_; }
  Value Decrement() override { return --value_; }
  bool CompareAndSwap(Value expected, Value desired) override {
    if (value_ != expected) return false;
    value_ = desired;
    return true;
  }

 private:
  const LiveMark mark_;
  Value value_;
};

class OneThread : public MTInterfaceImp {
 public:
  MTCritSec* NewCritSec() override { return new CritSec; }
  MTSemaphore* NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount) override {
    return new Semaphore(maxCount, initialCount);
  }
  MTAtomicUnsigned32* NewAtomicUnsigned32(std::uint32_t initial) override {
    return new Atomic<MTAtomicUnsigned32, std::uint32_t>(initial);
  }
  MTAtomicUnsigned64* NewAtomicUnsigned64(std::uint64_t initial) override {
    return new Atomic<MTAtomicUnsigned64, std::uint64_t>(initial);
  }
  MTThread* NewThread(MTThreadBody*, MTThread::MTPriority, std::uint64_t) override {
    throw "MTInterface Unable To Construct Object";
  }
  void DebugString(const char* text) override { std::fputs(text, stderr); }
  std::int64_t GetCurrentThreadID() override { return 1; }
  std::uint64_t GetCurrentTimeMicro() override { return 1000000; }
  std::uint64_t GetCPUCount() override { return 1; }
};

class SmallPages : public PhysMemInterfaceImp {
 public:
  Buffer* Allocate(std::uint64_t) override { return nullptr; }
  std::uint64_t GetPageSize() override { return kPageSize; }
};

// The two facades that the targets need, and no file system.
class Threading : public MTInterface {
 public:
  static void Install() { InstallImplementation(new OneThread); }
};
class Memory : public PhysMemInterface {
 public:
  static void Install() { InstallImplementation(new SmallPages); }
};

}  // namespace

void FailCheck(const char* file, int line, const char* text) {
  std::printf("not ok - %s:%d: %s\n", file, line, text);
  std::fflush(stdout);
  std::abort();
}

long CountLivePrimitives() {
  return livePrimitives;
}

}  // namespace Orvane::Fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Orvane::Fuzz::Threading::Install();
  Orvane::Fuzz::Memory::Install();
  return 0;
}
