// What a child of a process that uses the library finds.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Buffer.h"
#include "BufferList.h"
#include "ChildProcess.h"
#include "LinuxChildTools.h"
#include "LockOrderChecker.h"
#include "MTInterface.h"
#include "OSServices.h"
#include "OSServicesHost.h"

namespace Orvane {
namespace {

using Engine = NativeFileSysInterfaceImpHost::Engine;

constexpr std::uint32_t kForEver = 0xFFFFFFFF;

// Does something in the callback, then announces it.
class ActingCallback : public FileSource::ResultCallbackBufferList {
 public:
  explicit ActingCallback(std::function<void()> act = {}) : act_(std::move(act)) {}

  void Callback(FileSource::Result_t result, std::uint64_t, BufferList*, std::uint64_t) override {
    last = result;
    if (act_) act_();
    done_->Release(1);
  }
  void Wait(std::uint32_t reports = 1) { EXPECT_TRUE(done_->Wait(kForEver, reports)); }

  FileSource::Result_t last = FileSource::kResultNone;

 protected:
  ~ActingCallback() override = default;

 private:
  const std::function<void()> act_;
  const std::unique_ptr<MTSemaphore> done_{MTInterface::NewSemaphore(100, 0)};
};

class ForkTest : public ::testing::TestWithParam<Engine> {
 protected:
  // The library with this engine, in a process of its own, and an open file.
  void Run(const std::function<void()>& facts) {
    InChild([this, facts] {
      OSServices::InitWithExtensions(new OrderCheckingMTInterface, nullptr,
                                     new NativeFileSysInterfaceImpHost(GetParam()));
      const std::string name =
          (std::filesystem::temp_directory_path() / ("orvane-fork-" + std::to_string(getpid())))
              .string();
      source_ = NativeFileSysInterface::NewNativeFileSource(name.c_str());
      ASSERT_TRUE(source_->Open(/*forRead=*/true, /*forWrite=*/true, /*create=*/true));
      list_ = NewList();
      second_ = NewList();
      ASSERT_EQ(FileSource::kResultOK, source_->WriteWithList(0, list_, nullptr));
      facts();
      list_->DecRef("tests", "Run", 0);
      second_->DecRef("tests", "Run", 0);
      EXPECT_TRUE(source_->Delete());
      source_->DecRef("tests", "Run", 0);
    });
  }

  static BufferList* NewList() {
    return new BufferList(PhysMemInterface::Allocate(4096), /*adoptReference=*/true, 1);
  }

  // Every operation on the file, in the child of a fork. Its number tells which one was wrong.
  int UseFileInChild() {
    if (source_->ReadAsyncWithList(0, list_, nullptr, 0) != FileSource::kResultNotSupported)
      return 1;
    if (source_->WriteAsyncWithList(0, list_, nullptr, 0) != FileSource::kResultNotSupported) {
      return 2;
    }
    source_->Cancel();
    if (!source_->Close()) return 3;
    if (source_->Close()) return 4;
    source_->DecRef("tests", "UseFileInChild", 0);
    return 0;
  }
  int UseFileSynchronouslyInChild() {
    if (source_->ReadWithList(0, list_, nullptr) != FileSource::kResultNotSupported) return 1;
    if (source_->WriteWithList(0, list_, nullptr) != FileSource::kResultNotSupported) return 2;
    return 0;
  }

  NativeFileSource* source_ = nullptr;
  BufferList* list_ = nullptr;
  BufferList* second_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Engines, ForkTest,
                         ::testing::Values(NativeFileSysInterfaceImpHost::kEngineUring,
                                           NativeFileSysInterfaceImpHost::kEngineThreads),
                         [](const auto& engine) {
                           return engine.param == NativeFileSysInterfaceImpHost::kEngineUring
                                      ? std::string("Uring")
                                      : std::string("Threads");
                         });

TEST_P(ForkTest, TheChildIsRefusedAndNothingHangs) {
  Run([this] {
    EXPECT_EQ("exit 0", OutcomeInFork([this] { return UseFileInChild(); }));
    EXPECT_EQ("exit 0", OutcomeInFork([this] { return UseFileSynchronouslyInChild(); }));
  });
}

// The I/O thread is held in a callback, so that one request is reported, one is queued.
TEST_P(ForkTest, WhatIsOutstandingInTheParentIsNotReportedInTheChild) {
  Run([this] {
    const std::unique_ptr<MTSemaphore> inside(MTInterface::NewSemaphore(1, 0));
    const std::unique_ptr<MTSemaphore> go(MTInterface::NewSemaphore(1, 0));
    BufferList* const held = NewList();
    auto* const holding = new ActingCallback([&] {
      inside->Release(1);
      go->Wait(kForEver, 1);
    });
    int reportsInChild = 0;
    auto* const counting = new ActingCallback([&] { ++reportsInChild; });
    ASSERT_EQ(FileSource::kResultPending, source_->ReadAsyncWithList(0, held, holding, 0));
    ASSERT_TRUE(inside->Wait(kForEver, 1));
    ASSERT_EQ(FileSource::kResultPending, source_->ReadAsyncWithList(0, second_, counting, 0));
    EXPECT_EQ("exit 0", OutcomeInFork([&] {
                const int result = UseFileInChild();
                return result != 0 ? result : reportsInChild + 100 * (reportsInChild != 0);
              }));
    go->Release(1);
    holding->Wait();
    counting->Wait();
    EXPECT_EQ(FileSource::kResultOK, counting->last);
    holding->DecRef("tests", "Run", 0);
    counting->DecRef("tests", "Run", 0);
    held->DecRef("tests", "Run", 0);
  });
}

TEST_P(ForkTest, TheChildOfACallbackIsRefusedAndNothingHangs) {
  Run([this] {
    BufferList* const held = NewList();
    std::string outcome;
    auto* const plain = new ActingCallback;
    auto* const forking = new ActingCallback([&] {
      // Queued, so that there is something to cancel; the worker is this thread.
      EXPECT_EQ(FileSource::kResultPending, source_->ReadAsyncWithList(0, second_, plain, 0));
      outcome = OutcomeInFork([&] { return UseFileInChild(); });
    });
    ASSERT_EQ(FileSource::kResultPending, source_->ReadAsyncWithList(0, held, forking, 0));
    forking->Wait();
    plain->Wait();
    EXPECT_EQ("exit 0", outcome);
    EXPECT_EQ(FileSource::kResultOK, plain->last);
    plain->DecRef("tests", "Run", 0);
    forking->DecRef("tests", "Run", 0);
    held->DecRef("tests", "Run", 0);
  });
}

// In flight in the parent while a callback forks: the child cannot collect it.
TEST_P(ForkTest, TheChildOfACallbackDoesNotWaitForTransfersOfTheParent) {
  Run([this] {
    constexpr std::uint32_t kReads = 20;
    std::vector<BufferList*> lists;
    std::string outcome;
    bool forked = false;
    auto* const forking = new ActingCallback([&] {
      if (forked) return;
      forked = true;
      outcome = OutcomeInFork([&] { return UseFileInChild(); });
    });
    for (std::uint32_t i = 0; i < kReads; ++i) {
      lists.push_back(NewList());
      ASSERT_EQ(FileSource::kResultPending,
                source_->ReadAsyncWithList(0, lists.back(), forking, 0));
    }
    forking->Wait(kReads);
    EXPECT_EQ("exit 0", outcome);
    for (BufferList* list : lists) list->DecRef("tests", "Run", 0);
    forking->DecRef("tests", "Run", 0);
  });
}

TEST_P(ForkTest, TheParentIsNotDisturbed) {
  Run([this] {
    for (int i = 0; i < 5; ++i) {
      EXPECT_EQ("exit 0", OutcomeInFork([] { return 0; }));
      EXPECT_EQ(FileSource::kResultOK, source_->ReadWithList(0, list_, nullptr));
    }
  });
}

// Numbers of the open descriptors.
std::set<int> OpenDescriptors() {
  std::set<int> numbers;
  DIR* const directory = opendir("/proc/self/fd");
  while (const dirent* const entry = readdir(directory)) {
    const int number = std::atoi(entry->d_name);
    if (entry->d_name[0] != '.' && number != dirfd(directory)) numbers.insert(number);
  }
  closedir(directory);
  return numbers;
}

TEST_P(ForkTest, WhatTheLibraryOpensIsClosedOnExec) {
  Run([this] {
    int found = 0;
    for (const int number : OpenDescriptors()) {
      if (number <= STDERR_FILENO) continue;
      std::string target(4096, '\0');
      const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(number)).c_str(),
                                      target.data(), target.size());
      target.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
      const bool ours = target == source_->GetName() ||
                        target.find("io_uring") != std::string::npos ||
                        target.find("eventfd") != std::string::npos;
      EXPECT_TRUE(!ours || (fcntl(number, F_GETFD) & FD_CLOEXEC)) << target;
      found += ours;
    }
    EXPECT_LE(1, found);
  });
}

}  // namespace
}  // namespace Orvane
