// Threads of this host under limits that a process can only try on itself.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include "Buffer.h"
#include "ChildProcess.h"
#include "LinuxChildTools.h"
#include "MTInterface.h"
#include "OSServices.h"
#include "OSServicesHost.h"

namespace Orvane {
namespace {

constexpr std::uint32_t kForEver = 0xFFFFFFFF;

class NoFiles : public NativeFileSysInterfaceImp {
 public:
  NativeFileSource* NewNativeFileSource(const char*) override { return nullptr; }
};

// Waits until it is allowed to do its work.
class WaitingBody : public MTThreadBody {
 public:
  explicit WaitingBody(std::function<void()> work = {}) : work_(std::move(work)) {}

  int asked = 0;
  const std::unique_ptr<MTSemaphore> there{MTInterface::NewSemaphore(1, 0)};
  const std::unique_ptr<MTSemaphore> go{MTInterface::NewSemaphore(100, 0)};

 protected:
  void TerminateBody() override { ++asked; }
  void ThreadMain(MTThread*) override {
    there->Release(1);
    go->Wait(kForEver, 1);
    if (work_) work_();
  }

 private:
  const std::function<void()> work_;
};

int NiceOf(MTThread::MTPriority priority) {
  int nice = 1000;
  WaitingBody body([&] { nice = getpriority(PRIO_PROCESS, 0); });
  const std::unique_ptr<MTThread> thread(
      MTInterface::NewThread(&body, priority, MTThread::kProcessorAny));
  body.go->Release(1);
  EXPECT_TRUE(thread->Terminate(kForEver));
  return nice;
}

// The kernel starts no thread while this exists.
class NoMoreThreads {
 public:
  NoMoreThreads() {
    getrlimit(RLIMIT_NPROC, &before_);
    const rlimit none{0, before_.rlim_max};
    EXPECT_EQ(0, setrlimit(RLIMIT_NPROC, &none));
  }
  ~NoMoreThreads() { setrlimit(RLIMIT_NPROC, &before_); }
  NoMoreThreads(const NoMoreThreads&) = delete;
  NoMoreThreads& operator=(const NoMoreThreads&) = delete;

 private:
  rlimit before_{};
};

TEST(MTHostProcessTest, WithoutPrivilegeLowerPrioritiesWorkAndHigherOnesAreIgnored) {
  InChild([] {
    ASSERT_TRUE(DropPrivileges());
    const rlimit none{0, 0};
    ASSERT_EQ(0, setrlimit(RLIMIT_NICE, &none));
    OSServices::InitWithExtensions(nullptr, nullptr, new NoFiles);
    const int base = getpriority(PRIO_PROCESS, 0);
    const int lowest = NiceOf(MTThread::kPriorityLowest);
    const int below = NiceOf(MTThread::kPriorityBelowNormal);
    EXPECT_GT(lowest, below);
    EXPECT_GT(below, base);
    EXPECT_EQ(base, NiceOf(MTThread::kPriorityNormal));
    EXPECT_EQ(base, NiceOf(MTThread::kPriorityAboveNormal));
    EXPECT_EQ(base, NiceOf(MTThread::kPriorityHighest));
    EXPECT_EQ(base, NiceOf(MTThread::kPriorityTimeCritical));
  });
}

TEST(MTHostProcessTest, AThreadThatTheHostDoesNotStartThrowsAtOnce) {
  InChild([] {
    ASSERT_TRUE(DropPrivileges());
    OSServices::InitWithExtensions(nullptr, nullptr, new NoFiles);
    WaitingBody body;
    const std::uint64_t start = MTInterface::GetCurrentTimeMicro();
    {
      const NoMoreThreads limit;
      EXPECT_EQ("MTInterface Unable To Construct Object", TextThrownBy([&] {
                  MTInterface::NewThread(&body, MTThread::kPriorityNormal, MTThread::kProcessorAny);
                }));
    }
    // The ten seconds for which a deleted thread waits for its body are not spent on this one.
    EXPECT_LT(MTInterface::GetCurrentTimeMicro() - start, 5000000U);
    EXPECT_EQ(0, body.asked);
    NiceOf(MTThread::kPriorityNormal);  // a thread can be started again
  });
}

TEST(MTHostProcessTest, WithoutAThreadFilesRefuseEveryRequest) {
  InChild([] {
    ASSERT_TRUE(DropPrivileges());
    {
      const NoMoreThreads limit;
      OSServices::Init();
    }
    EXPECT_STREQ("none", NativeFileSysInterfaceImpHost::GetEngineName());
    NativeFileSource* const source = NativeFileSysInterface::NewNativeFileSource("/proc/self/exe");
    Buffer* const buffer = PhysMemInterface::Allocate(4096);
    EXPECT_TRUE(source->Open(/*forRead=*/true, /*forWrite=*/false, /*create=*/false));
    EXPECT_EQ(FileSource::kResultNotSupported, source->Read(0, buffer, nullptr));
    source->Cancel();
    EXPECT_TRUE(source->Close());
    buffer->DecRef("tests", "WithoutAThreadFilesRefuseEveryRequest", 0);
    source->DecRef("tests", "WithoutAThreadFilesRefuseEveryRequest", 0);
  });
}

// Semaphores that note for how long they are asked to wait, and do not wait.
class ImpatientThreading : public MTInterfaceImpHost {
 public:
  class Semaphore : public MTSemaphore {
   public:
    Semaphore(MTSemaphore* inner, std::vector<std::uint32_t>* waits)
        : MTSemaphore(0, 0), inner_(inner), waits_(waits) {}
    bool Release(std::uint32_t count) override { return inner_->Release(count); }
    bool Wait(std::uint32_t timeoutMs, std::uint32_t count) override {
      if (timeoutMs == kForEver) return inner_->Wait(timeoutMs, count);
      waits_->push_back(timeoutMs);
      return inner_->Wait(0, count);
    }

   private:
    const std::unique_ptr<MTSemaphore> inner_;
    std::vector<std::uint32_t>* const waits_;
  };

  MTSemaphore* NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount) override {
    return new Semaphore(MTInterfaceImpHost::NewSemaphore(maxCount, initialCount), &waits);
  }

  std::vector<std::uint32_t> waits;
};

// KEPT: the body goes on without its thread object.
TEST(MTHostProcessTest, ADeletedThreadIsWaitedForTenSecondsAndNoLonger) {
  InChild([] {
    auto* const threading = new ImpatientThreading;
    OSServices::InitWithExtensions(threading, nullptr, new NoFiles);
    auto* const body = new WaitingBody;  // runs until the process ends
    std::unique_ptr<MTThread> thread(
        MTInterface::NewThread(body, MTThread::kPriorityNormal, MTThread::kProcessorAny));
    EXPECT_TRUE(body->there->Wait(kForEver, 1));
    thread.reset();
    EXPECT_EQ(std::vector<std::uint32_t>{10000}, threading->waits);
    EXPECT_EQ(1, body->asked);
  });
}

// Semaphores whose Release takes its time after the count was raised.
std::atomic<bool> slowNow{false};
std::atomic<bool> callReturned{false};
std::atomic<bool> releaseOver{false};
std::atomic<bool> destroyedTooEarly{false};

class SlowThreading : public MTInterfaceImpHost {
 public:
  class Semaphore : public MTSemaphore {
   public:
    explicit Semaphore(MTSemaphore* inner) : MTSemaphore(0, 0), inner_(inner) {}
    ~Semaphore() override {
      if (!releaseOver) destroyedTooEarly = true;
    }
    // Touches the object no more after the count was raised, so that a failure is no crash.
    bool Release(std::uint32_t count) override {
      const bool released = inner_->Release(count);
      for (int i = 0; i < 5000 && !callReturned; ++i) usleep(1000);
      usleep(20000);  // for the caller to do what he should not
      releaseOver = true;
      return released;
    }
    bool Wait(std::uint32_t timeoutMs, std::uint32_t count) override {
      return inner_->Wait(timeoutMs, count);
    }

   private:
    const std::unique_ptr<MTSemaphore> inner_;
  };

  MTSemaphore* NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount) override {
    MTSemaphore* const semaphore = MTInterfaceImpHost::NewSemaphore(maxCount, initialCount);
    return slowNow ? new Semaphore(semaphore) : semaphore;
  }
};

TEST(MTHostProcessTest, ASynchronousCallKeepsItsSemaphoreUntilTheReleaseIsOver) {
  InChild([] {
    OSServices::InitWithExtensions(new SlowThreading, nullptr, nullptr);
    NativeFileSource* const source = NativeFileSysInterface::NewNativeFileSource("/proc/self/exe");
    Buffer* const buffer = PhysMemInterface::Allocate(4096);
    ASSERT_TRUE(source->Open(/*forRead=*/true, /*forWrite=*/false, /*create=*/false));
    slowNow = true;
    EXPECT_EQ(FileSource::kResultOK, source->Read(0, buffer, nullptr));
    slowNow = false;
    callReturned = true;
    while (!releaseOver) usleep(1000);
    EXPECT_FALSE(destroyedTooEarly);
    EXPECT_TRUE(source->Close());
    buffer->DecRef("tests", "ASynchronousCallKeepsItsSemaphore", 0);
    source->DecRef("tests", "ASynchronousCallKeepsItsSemaphore", 0);
  });
}

}  // namespace
}  // namespace Orvane
