// orvane_install_tests: the library before, during and after its installation.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Buffer.h"
#include "BufferFactory.h"
#include "CacheSource.h"
#include "ChildProcess.h"
#include "LockOrderChecker.h"
#include "OSServices.h"
#include "OSServices/AsyncHandler.h"
#include "OSServicesHost.h"
#include "TestEngine.h"
#include "TestHost.h"

namespace Orvane {
namespace {

constexpr const char* kNoThreads = "MTInterface No Installed Implementation";
constexpr const char* kNoMemory = "PhysMemInterface No Installed Implementation";
constexpr const char* kNoFiles = "NativeFileSysInterface No Installed Implementation";
constexpr const char* kTwice = "OSServices Already Initialized";

// What was called, in order.
std::vector<std::string> calls;

// The host's threading with an answer changed here and there.
class ChangedThreading : public OrderCheckingMTInterface {
 public:
  std::uint64_t processors = 3;
  std::uint32_t firstCount = 0;  // of the 32-bit counters
  bool makesSemaphores = true;
  bool makesCounters = true;
  int threadsLeft = 1000;
  bool threadsAreNull = false;  // else a refusal throws
  std::string text;
  std::vector<LockClass> lockClasses;  // of the sections, in the order in which they were made

  MTCritSec* NewCritSec() override {
    lockClasses.push_back(GetLockClassBeingMade());
    return OrderCheckingMTInterface::NewCritSec();
  }
  MTSemaphore* NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount) override {
    return makesSemaphores ? MTInterfaceImpHost::NewSemaphore(maxCount, initialCount) : nullptr;
  }
  MTAtomicUnsigned32* NewAtomicUnsigned32(std::uint32_t initial) override {
    return makesCounters ? MTInterfaceImpHost::NewAtomicUnsigned32(initial + firstCount) : nullptr;
  }
  MTThread* NewThread(MTThreadBody* body, MTThread::MTPriority priority,
                      std::uint64_t processorMask) override {
    if (threadsLeft-- > 0) return MTInterfaceImpHost::NewThread(body, priority, processorMask);
    if (threadsAreNull) return nullptr;
    throw "MTInterface Unable To Construct Object";
  }
  void DebugString(const char* more) override { text += more; }
  std::uint64_t GetCPUCount() override {
    calls.push_back("threads");
    return processors;
  }
};

class ChangedMemory : public PhysMemInterfaceImpHost {
 public:
  explicit ChangedMemory(std::uint64_t pageSize) : pageSize_(pageSize) {}

  Buffer* Allocate(std::uint64_t size) override {
    ++allocations;
    return PhysMemInterfaceImpHost::Allocate(size);
  }
  std::uint64_t GetPageSize() override {
    calls.push_back("memory");
    return pageSize_;
  }

  int allocations = 0;

 private:
  const std::uint64_t pageSize_;
};

// A file system without files, so that no I/O thread is started.
class NoFiles : public NativeFileSysInterfaceImp {
 public:
  NativeFileSource* NewNativeFileSource(const char* name) override {
    names.push_back(name);
    return nullptr;
  }
  void Installed() override {
    calls.push_back("files");
    pageSizeAtInstallation = PhysMemInterface::GetPageSize();
    MTInterface::GetCPUCount();
  }

  std::vector<std::string> names;
  std::uint64_t pageSizeAtInstallation = 0;
};

// Opens up what only OSServices calls.
class ThreadingFacade : public MTInterface {
 public:
  using MTInterface::InstallImplementation;
};
class MemoryFacade : public PhysMemInterface {
 public:
  using PhysMemInterface::InstallImplementation;
};
class FilesFacade : public NativeFileSysInterface {
 public:
  using NativeFileSysInterface::InstallImplementation;
};

class PlainSource : public CacheSource {
 public:
  bool CanGatherReads() override { return false; }

 protected:
  ~PlainSource() override = default;
  Result_t ReadTransaction(CacheTransaction*) override { return kResultNotSupported; }
  void CancelAllTransactions() override {}
};

// A file of some pages, gone at the end.
class TemporaryFile {
 public:
  TemporaryFile()
      : path_(std::filesystem::temp_directory_path() /
              ("orvane-install-" + std::to_string(GetProcessNumber()))),
        name_(path_.string()) {
    std::ofstream(path_, std::ios::binary).close();
    std::filesystem::resize_file(path_, 16 * 4096);
  }
  ~TemporaryFile() { std::filesystem::remove(path_); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  const char* Name() const { return name_.c_str(); }

 private:
  const std::filesystem::path path_;
  const std::string name_;
};

FileSource::Result_t ReadOnePage(FileSource* source) {
  Buffer* const buffer = PhysMemInterface::Allocate(4096);
  const FileSource::Result_t result = source->Read(0, buffer, nullptr);
  buffer->DecRef("tests", "ReadOnePage", 0);
  return result;
}

// The answer to a read from an existing file.
FileSource::Result_t ReadOnePage() {
  const TemporaryFile file;
  NativeFileSource* const source = NativeFileSysInterface::NewNativeFileSource(file.Name());
  EXPECT_TRUE(source->Open(/*forRead=*/true, /*forWrite=*/false, /*create=*/false));
  const FileSource::Result_t result = ReadOnePage(source);
  source->Cancel();
  EXPECT_TRUE(source->Close());
  source->DecRef("tests", "ReadOnePage", 0);
  return result;
}

// Before.

TEST(InstallTest, BeforeItThreadingOperationsThrow) {
  InChild([] {
    const std::function<void()> kOperations[] = {
        [] { MTInterface::NewCritSec(); },
        [] { MTInterface::NewSemaphore(1, 0); },
        [] { MTInterface::NewAtomicUnsigned32(0); },
        [] { MTInterface::NewAtomicUnsigned64(0); },
        [] { MTInterface::NewAtomicPointer(nullptr); },
        [] { MTInterface::NewThread(nullptr, MTThread::kPriorityNormal, MTThread::kProcessorAny); },
        [] { MTInterface::Sleep(0); },
        [] { MTInterface::GetCPUCount(); },
        [] { MTInterface::GetCurrentThreadID(); },
        [] { MTInterface::GetCurrentTimeMicro(); },
        [] { MTInterface::GetCurrentTimeMilli(); },
        [] { MTInterface::GetProcessUniqueID(); },
    };
    for (const auto& operation : kOperations) EXPECT_EQ(kNoThreads, TextThrownBy(operation));
  });
}

TEST(InstallTest, BeforeItMemoryAndFilesThrow) {
  InChild([] {
    EXPECT_EQ(kNoMemory, TextThrownBy([] { PhysMemInterface::Allocate(1); }));
    EXPECT_EQ(0U, PhysMemInterface::GetPageSize());
    EXPECT_EQ(kNoFiles, TextThrownBy([] { NativeFileSysInterface::NewNativeFileSource("x"); }));
    EXPECT_STREQ("none", NativeFileSysInterfaceImpHost::GetEngineName());
  });
}

TEST(InstallTest, BeforeItSharedObjectsCannotBeMade) {
  InChild([] {
    EXPECT_EQ(kNoThreads, TextThrownBy([] { new HeapBuffer(1); }));
    EXPECT_EQ(kNoThreads, TextThrownBy([] { new PlainSource; }));
    EXPECT_EQ(kNoThreads, TextThrownBy([] { AsyncHandler([](int) { return nullptr; }); }));
  });
}

TEST(InstallTest, AFailedOperationBeforeItDoesNotPreventIt) {
  InChild([] {
    EXPECT_EQ(kNoThreads, TextThrownBy([] { MTInterface::GetProcessUniqueID(); }));
    OSServices::Init();
    EXPECT_EQ(1U, MTInterface::GetProcessUniqueID());
  });
}

// During.

TEST(InstallTest, TheDefaultsWork) {
  InChild([] {
    OSServices::Init();
    EXPECT_EQ(GetHostPageSize(), PhysMemInterface::GetPageSize());
    EXPECT_EQ(FileSource::kResultOK, ReadOnePage());
    EXPECT_STRNE("none", NativeFileSysInterfaceImpHost::GetEngineName());
  });
}

TEST(InstallTest, ASecondOneThrowsAndChangesNothing) {
  InChild([] {
    auto* const threads = new ChangedThreading;
    auto* const memory = new ChangedMemory(8192);
    auto* const files = new NoFiles;
    OSServices::InitWithExtensions(threads, memory, files);
    EXPECT_EQ(1U, MTInterface::GetProcessUniqueID());
    ChangedThreading other;
    ChangedMemory otherMemory(1);
    NoFiles otherFiles;
    other.processors = 7;
    EXPECT_EQ(kTwice, TextThrownBy([] { OSServices::Init(); }));
    EXPECT_EQ(kTwice,
              TextThrownBy([] { OSServices::InitWithExtensions(nullptr, nullptr, nullptr); }));
    EXPECT_EQ(kTwice, TextThrownBy([&] {
                OSServices::InitWithExtensions(&other, &otherMemory, &otherFiles);
              }));
    EXPECT_EQ(3U, MTInterface::GetCPUCount());
    EXPECT_EQ(8192U, PhysMemInterface::GetPageSize());
    EXPECT_EQ(2U, MTInterface::GetProcessUniqueID());
    EXPECT_EQ(nullptr, NativeFileSysInterface::NewNativeFileSource("name"));
    EXPECT_EQ(1U, files->names.size());
  });
}

TEST(InstallTest, ImplementationsOfTheApplicationAreUsed) {
  InChild([] {
    auto* const threads = new ChangedThreading;
    auto* const memory = new ChangedMemory(4096);
    auto* const files = new NoFiles;
    calls.clear();
    OSServices::InitWithExtensions(threads, memory, files);
    EXPECT_EQ((std::vector<std::string>{"threads", "memory", "files"}), calls);
    EXPECT_EQ(4096U, files->pageSizeAtInstallation);
    MTInterface::DebugString("text");
    EXPECT_EQ("text", threads->text);
    Buffer* const buffer = PhysMemInterface::Allocate(1);
    EXPECT_EQ(1, memory->allocations);
    buffer->DecRef("tests", "ImplementationsOfTheApplicationAreUsed", 0);
    NativeFileSysInterface::NewNativeFileSource("name");
    EXPECT_EQ(std::vector<std::string>{"name"}, files->names);
    EXPECT_STREQ("none", NativeFileSysInterfaceImpHost::GetEngineName());
  });
}

TEST(InstallTest, ImplementationsCanAskForTheClassOfASection) {
  InChild([] {
    auto* const threads = new ChangedThreading;
    OSServices::InitWithExtensions(threads, nullptr, new NoFiles);
    threads->lockClasses.clear();
    delete MTInterface::NewCritSec();
    delete NewCritSec(LockClass::kBlock);
    auto* const factory = new BufferFactoryHeap;
    EXPECT_EQ((std::vector<LockClass>{LockClass::kOther, LockClass::kBlock,
                                      LockClass::kSharedObjectModify, LockClass::kFactory}),
              threads->lockClasses);
    factory->DecRef("tests", "ImplementationsCanAskForTheClassOfASection", 0);
  });
}

TEST(InstallTest, EachDefaultFillsOnlyItsOwnPlace) {
  InChild([] {
    auto* const threads = new ChangedThreading;
    OSServices::InitWithExtensions(threads, nullptr, nullptr);
    EXPECT_EQ(3U, MTInterface::GetCPUCount());
    EXPECT_EQ(FileSource::kResultOK, ReadOnePage());
  });
  InChild([] {
    auto* const memory = new ChangedMemory(4096);
    OSServices::InitWithExtensions(nullptr, memory, nullptr);
    EXPECT_EQ(FileSource::kResultOK, ReadOnePage());
    EXPECT_EQ(1, memory->allocations);
  });
}

TEST(InstallTest, EveryFacadeTakesOneImplementation) {
  InChild([] {
    EXPECT_EQ(kNoThreads, TextThrownBy([] { ThreadingFacade::InstallImplementation(nullptr); }));
    EXPECT_EQ(kNoMemory, TextThrownBy([] { MemoryFacade::InstallImplementation(nullptr); }));
    EXPECT_EQ(kNoFiles, TextThrownBy([] { FilesFacade::InstallImplementation(nullptr); }));
    OSServices::InitWithExtensions(nullptr, nullptr, new NoFiles);
    ChangedThreading threads;
    ChangedMemory memory(4096);
    NoFiles files;
    EXPECT_EQ("MTInterface Implementation Already Installed",
              TextThrownBy([&] { ThreadingFacade::InstallImplementation(&threads); }));
    EXPECT_EQ("PhysMemInterface Implementation Already Installed",
              TextThrownBy([&] { MemoryFacade::InstallImplementation(&memory); }));
    EXPECT_EQ("NativeFileSysInterface Implementation Already Installed",
              TextThrownBy([&] { FilesFacade::InstallImplementation(&files); }));
    EXPECT_EQ(kNoThreads, TextThrownBy([] { ThreadingFacade::InstallImplementation(nullptr); }));
  });
}

TEST(InstallTest, WithoutASleepSemaphoreItThrowsAndTheImplementationStays) {
  InChild([] {
    auto* const threads = new ChangedThreading;
    threads->makesSemaphores = false;
    NoFiles files;
    EXPECT_EQ("MTInterface Unable To Construct Object",
              TextThrownBy([&] { OSServices::InitWithExtensions(threads, nullptr, &files); }));
    EXPECT_EQ(3U, MTInterface::GetCPUCount());
    EXPECT_EQ(1U, MTInterface::GetProcessUniqueID());
    EXPECT_EQ(kNoThreads, TextThrownBy([] { MTInterface::Sleep(1); }));
    EXPECT_EQ("MTInterface Implementation Already Installed",
              TextThrownBy([&] { OSServices::InitWithExtensions(threads, nullptr, &files); }));
    EXPECT_EQ(0U, PhysMemInterface::GetPageSize());
  });
}

TEST(InstallTest, WithoutACounterThereAreNoUniqueIDs) {
  InChild([] {
    auto* const threads = new ChangedThreading;
    threads->makesCounters = false;
    OSServices::InitWithExtensions(threads, nullptr, new NoFiles);
    EXPECT_EQ(kNoThreads, TextThrownBy([] { MTInterface::GetProcessUniqueID(); }));
    MTInterface::Sleep(0);
  });
}

TEST(InstallTest, WithoutProcessorsTheirNumberIsNotKnown) {
  InChild([] {
    auto* const threads = new ChangedThreading;
    threads->processors = 0;
    OSServices::InitWithExtensions(threads, nullptr, nullptr);
    EXPECT_EQ(kNoThreads, TextThrownBy([] { MTInterface::GetCPUCount(); }));
    EXPECT_EQ(FileSource::kResultOK, ReadOnePage());
  });
}

// After.

TEST(InstallTest, UniqueIDsBeginWithOne) {
  InChild([] {
    OSServices::InitWithExtensions(nullptr, nullptr, new NoFiles);
    EXPECT_EQ(1U, MTInterface::GetProcessUniqueID());
    EXPECT_EQ(2U, MTInterface::GetProcessUniqueID());
    EXPECT_EQ(3U, MTInterface::GetProcessUniqueID());
  });
}

TEST(InstallTest, UniqueIDsSkipZero) {
  InChild([] {
    auto* const threads = new ChangedThreading;
    threads->firstCount = 0xFFFFFFFE;
    OSServices::InitWithExtensions(threads, nullptr, new NoFiles);
    EXPECT_EQ(0xFFFFFFFFU, MTInterface::GetProcessUniqueID());
    EXPECT_EQ(1U, MTInterface::GetProcessUniqueID());
    EXPECT_EQ(2U, MTInterface::GetProcessUniqueID());
  });
  InChild([] {
    auto* const threads = new ChangedThreading;
    threads->firstCount = 0xFFFFFFFF;
    OSServices::InitWithExtensions(threads, nullptr, new NoFiles);
    EXPECT_EQ(1U, MTInterface::GetProcessUniqueID());
  });
}

TEST(InstallTest, SourcesAlignToThePageSizeOfTheirTime) {
  struct Case {
    std::uint64_t pageSize;
    std::uint64_t offset;
    std::uint64_t aligned;
  };
  for (const Case& fact : {Case{4096, 4097, 4096}, Case{0, 4097, 4097}, Case{1, 4097, 4097},
                           Case{1000, 4097, 4000}, Case{1000, 4000, 4000}, Case{2, 4097, 4096}}) {
    InChild([&] {
      OSServices::InitWithExtensions(nullptr, new ChangedMemory(fact.pageSize), new NoFiles);
      auto* const source = new PlainSource;
      EXPECT_EQ(fact.pageSize, source->GetAlignmentRequirement());
      EXPECT_EQ(fact.aligned, source->Align(fact.offset));
      source->DecRef("tests", "SourcesAlignToThePageSizeOfTheirTime", 0);
    });
  }
}

TEST(InstallTest, PagesAreCountedAlsoWhenTheirSizeIsNoPowerOfTwo) {
  InChild([] {
    OSServices::InitWithExtensions(nullptr, new ChangedMemory(1000), new NoFiles);
    const auto pagesOf = [](std::uintptr_t address, std::uint64_t size) {
      return PhysMemInterface::GetNumberOfValidPagesForBuffer(reinterpret_cast<void*>(address),
                                                              size);
    };
    EXPECT_EQ(3U, pagesOf(7000, 3000));
    EXPECT_EQ(0U, pagesOf(7000, 3001));
    EXPECT_EQ(0U, pagesOf(7001, 3000));
    EXPECT_EQ(0U, pagesOf(0, 3000));
    EXPECT_EQ(0U, pagesOf(7000, 0));
  });
}

// The file system of the host.

TEST(InstallTest, AHostFileSystemMadeBeforeItWaitsForItAndKeepsItsEngine) {
  InChild([] {
    auto* const files = new NativeFileSysInterfaceImpHost(kPlainEngine);
    EXPECT_STREQ("none", NativeFileSysInterfaceImpHost::GetEngineName());
    OSServices::InitWithExtensions(nullptr, nullptr, files);
    EXPECT_STREQ(kPlainEngineName, NativeFileSysInterfaceImpHost::GetEngineName());
    EXPECT_EQ(kPlainEngine, NativeFileSysInterfaceImpHost::GetEngine());
    EXPECT_EQ(FileSource::kResultOK, ReadOnePage());
  });
}

TEST(InstallTest, TheFirstEngineThatRunsStays) {
  InChild([] {
    OSServices::InitWithExtensions(nullptr, nullptr,
                                   new NativeFileSysInterfaceImpHost(kPlainEngine));
    NativeFileSysInterfaceImpHost later(kOtherEngine);
    later.Installed();
    EXPECT_STREQ(kPlainEngineName, NativeFileSysInterfaceImpHost::GetEngineName());
  });
}

TEST(InstallTest, AWrappedHostFileSystemStartsWithItsFirstFile) {
  class Wrapper : public NativeFileSysInterfaceImp {
   public:
    NativeFileSource* NewNativeFileSource(const char* name) override {
      return inner_.NewNativeFileSource(name);
    }

   private:
    NativeFileSysInterfaceImpHost inner_{kPlainEngine};
  };
  InChild([] {
    OSServices::InitWithExtensions(nullptr, nullptr, new Wrapper);
    EXPECT_EQ(FileSource::kResultOK, ReadOnePage());
    EXPECT_STREQ(kPlainEngineName, NativeFileSysInterfaceImpHost::GetEngineName());
  });
}

TEST(InstallTest, WithoutAThreadFilesRefuseEveryRequest) {
  for (const bool null : {false, true}) {
    InChild([null] {
      auto* const threads = new ChangedThreading;
      threads->threadsLeft = 0;
      threads->threadsAreNull = null;
      OSServices::InitWithExtensions(threads, nullptr, nullptr);
      EXPECT_EQ(FileSource::kResultNotSupported, ReadOnePage());
      EXPECT_STREQ("none", NativeFileSysInterfaceImpHost::GetEngineName());
    });
  }
}

TEST(InstallTest, AnEngineWithoutThreadsOfItsOwnIsNone) {
  if (!kPlainEngineHasThreads)
    GTEST_SKIP() << "Windows: the kernel does the I/O, no threads to fail";
  for (const bool null : {false, true}) {
    InChild([null] {
      auto* const threads = new ChangedThreading;
      threads->threadsLeft = 1;  // the I/O thread
      threads->threadsAreNull = null;
      OSServices::InitWithExtensions(threads, nullptr,
                                     new NativeFileSysInterfaceImpHost(kPlainEngine));
      EXPECT_EQ(FileSource::kResultNotSupported, ReadOnePage());
      EXPECT_STREQ("none", NativeFileSysInterfaceImpHost::GetEngineName());
    });
  }
}

TEST(InstallTest, AnEngineWithFewThreadsWorks) {
  if (!kPlainEngineHasThreads)
    GTEST_SKIP() << "Windows: the kernel does the I/O, no threads to fail";
  for (const bool null : {false, true}) {
    InChild([null] {
      auto* const threads = new ChangedThreading;
      threads->threadsLeft = 2;
      threads->threadsAreNull = null;
      OSServices::InitWithExtensions(threads, nullptr,
                                     new NativeFileSysInterfaceImpHost(kPlainEngine));
      EXPECT_EQ(FileSource::kResultOK, ReadOnePage());
      EXPECT_STREQ(kPlainEngineName, NativeFileSysInterfaceImpHost::GetEngineName());
    });
  }
}

TEST(InstallTest, AHandlerWhosePortsThrowHasNoWorker) {
  class Throwing : public AsyncPort {
   public:
    bool Attach() override { throw std::bad_alloc(); }
    void Detach() override {}
    Started Issue(const Transfer&) override { return Started::kFailed; }
    void Cancel(std::uint32_t, std::uint32_t) override {}
    bool Wait(std::uint32_t, Completion*) override { return false; }
    void Wake(Signal) override {}
    bool IsAtEnd(HostFile*, std::uint64_t) override { return false; }
  };
  InChild([] {
    OSServices::InitWithExtensions(nullptr, nullptr, new NoFiles);
    const AsyncHandler::PortFactory kFactories[] = {
        [](int) -> std::unique_ptr<AsyncPort> { throw std::bad_alloc(); },
        [](int) { return std::make_unique<Throwing>(); }};
    for (const auto& factory : kFactories) {
      AsyncHandler handler(factory);
      EXPECT_FALSE(handler.IsRunning());
      handler.Cancel(nullptr);
    }
  });
}

}  // namespace
}  // namespace Orvane

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
