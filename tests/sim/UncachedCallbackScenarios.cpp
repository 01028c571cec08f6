// Files without a cache: what callbacks may do, and what becomes of them.
#include <string>

#include "Scenario.h"
#include "SimBench.h"
#include "SimTools.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kPage = SimFileModel::kPage;
constexpr const char* kFile = "tests/sim/UncachedCallbackScenarios";

ORVANE_SMALL_SCENARIO(CallbackStartsNextRead, "The report of a read starts a read of its own.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  SimRequestForm form;
  form.onReport = [](SimRequest& request) { request.Source().Read(kPage, kPage); };
  source.Read(0, kPage, form);
  bench.AwaitAll();
  Simulator::Settle();
}

// Copies a file page by page, from report to report.
struct Copier {
  SimSource* from;
  SimSource* to;
  std::uint64_t pagesLeft;

  void Next() {
    if (pagesLeft-- == 0) return;
    SimRequestForm form;
    form.onReport = [this](SimRequest& read) {
      if (read.Result() != CacheSource::kResultOK) return;
      SimRequestForm next;
      next.onReport = [this](SimRequest&) { Next(); };
      to->Write(read.Offset(), read.Size(), next);
    };
    from->Read(pagesLeft * kPage, kPage, form);
  }
};

ORVANE_SCENARIO(CallbacksReadAndWrite,
                "Two copies, each report of which starts the next transfer.") {
  SimFileModel& file = bench.NewFile(3 * kPage);
  SimFileModel& copy = bench.NewFile(0);
  SimSource& from = bench.NewSource(file);
  SimSource& to = bench.NewSource(copy);
  Copier one{&from, &to, 3};
  Copier two{&from, &to, 2};
  one.Next();
  two.Next();
  if (Simulator::Random(3) == 0) to.Cancel();
  bench.AwaitAll();
  Simulator::Settle();
}

ORVANE_SMALL_SCENARIO(CallbackThrows, "What a report throws is logged, and harms nobody else.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  bool thrown = false;
  SimRequestForm form;
  form.asList = Simulator::Random(2) == 0;
  form.onReport = [&thrown](SimRequest&) {
    thrown = true;
    throw 1;
  };
  source.Read(0, kPage, form);
  const SimRequest& read = source.Read(kPage, kPage);
  bench.AwaitAll();
  Simulator::Settle();
  const SimulatorAllocations::Exempt exempt;
  const bool logged = Simulator::TakeDebugText().find("In File Callback") != std::string::npos;
  Expect(logged == thrown, "what a callback threw is not logged, or something else is");
  Expect(read.Result() != CacheSource::kResultFailed, "nobody has cancelled it");
}

ORVANE_SMALL_SCENARIO(CallbackReadsSynchronously,
                      "A report that would wait for itself is refused.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  SimRequestForm form;
  form.onReport = [](SimRequest& request) {
    SimRequestForm refused;
    refused.onLibraryThread = true;
    request.Source().ReadNow(kPage, kPage, refused);
    request.Source().WriteNow(kPage, kPage, refused);
  };
  source.Read(0, kPage, form);
  bench.AwaitAll();
  Simulator::Settle();
}

// With nobody to tell, the end shows in what the list says.
ORVANE_SMALL_SCENARIO(NoCallback, "Transfers without a callback, of which one is cancelled.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  NativeFileSource* const native = source.Get();
  const OwnList cancelled(kPage);
  const OwnList done(kPage);
  const std::uint64_t begin = Simulator::GetTimeMicro();
  try {
    native->ReadAsyncWithList(0, cancelled.Get(), nullptr, 0);
    source.Cancel();
    cancelled.CheckAtRest();
    native->ReadAsync(kPage, done.GetBuffer(), nullptr, 0);
  } catch (const std::bad_alloc&) {
    // Memory was short.
  }
  Simulator::Settle();
  cancelled.CheckAtRest();
  done.CheckAtRest();
  // Time may have jumped past what a request waits to be issued at most, and nobody tells.
  if (Simulator::GetFaults() != 0 || Simulator::GetTimeMicro() - begin >= kMostQueueMicros) return;
  const SimulatorAllocations::Exempt exempt;
  const std::string wrong = file.Check(done.Memory().Gather(kPage).data(), kPage, kPage,
                                       Simulator::GetStep(), Simulator::GetStep());
  if (!wrong.empty()) Simulator::Fail(wrong);
}

// An application's lock that it holds while it calls the library, and enters in its callbacks.
ORVANE_SCENARIO(CallbackTakesCallersLock,
                "Callbacks enter a lock that callers of the library hold.") {
  SimFileModel& file = bench.NewFile(3 * kPage);
  SimSource& source = bench.NewSource(file);
  const std::unique_ptr<MTCritSec> lock(OrGiveUp([] { return MTInterface::NewCritSec(); }));
  int reports = 0;
  SimRequestForm form;
  form.onReport = [&lock, &reports](SimRequest&) {
    lock->Enter();
    ++reports;
    lock->Leave();
  };
  Crew crew;
  for (int thread = 0; thread < 2; ++thread) {
    crew.Start([&source, &lock, &form] {
      for (int k = 0; k < 2; ++k) {
        lock->Enter();
        source.Read(Simulator::Random(3) * kPage, kPage, form);
        lock->Leave();
      }
    });
  }
  crew.Start([&source] { source.Cancel(); });
  crew.Join();
  bench.AwaitAll();
  Simulator::Settle();
}

// What is known of a callback from outside.
struct CallbackLife {
  bool isAlive = false;
  int reports = 0;
};

class OwnCallback : public FileSource::ResultCallbackBufferList {
 public:
  explicit OwnCallback(CallbackLife* life) : life_(life) { life_->isAlive = true; }
  void Callback(CacheSource::Result_t, std::uint64_t, BufferList*, std::uint64_t) override {
    CallbackLife* const life = life_;
    Simulator::Step();
    Expect(life->isAlive, "the callback is gone while it runs");
    ++life->reports;
  }

 protected:
  ~OwnCallback() override { life_->isAlive = false; }

 private:
  CallbackLife* const life_;
};

ORVANE_SMALL_SCENARIO(CallbackIsKept,
                      "Callback and list are given up as soon as a read is started.") {
  SimFileModel& file = bench.NewFile(kPage);
  SimSource& source = bench.NewSource(file);
  CallbackLife life;
  OwnList list(kPage);
  Held<OwnCallback> callback(OrGiveUp([&life] { return new OwnCallback(&life); }));
  const bool started = source.Get()->ReadAsyncWithList(0, list.Get(), callback.get(), 0) ==
                       CacheSource::kResultPending;
  list.ForgetList();
  callback.reset();
  Simulator::Settle();
  Expect(!life.isAlive, "the callback is still there");
  Expect(life.reports == (started ? 1 : 0), "reported not once");
}

// Reads into one list again and again, from report to report.
class Repeater : public FileSource::ResultCallbackBufferList {
 public:
  Repeater(NativeFileSource* source, int times) : source_(source), left_(times) {}

  void Next(BufferList* list) {
    if (left_-- == 0) return;
    if (source_->ReadAsyncWithList(0, list, this, 0) != CacheSource::kResultPending) left_ = 0;
  }
  void Callback(CacheSource::Result_t, std::uint64_t, BufferList* list, std::uint64_t) override {
    for (std::size_t k = 0; k < list->GetNumberOfBuffers(); ++k) {
      Expect(list->GetBuffer(k)->GetLockState() == Buffer::kBufferUnlocked, "it is still locked");
    }
    Next(list);
  }

 private:
  NativeFileSource* const source_;
  int left_;
};

ORVANE_SMALL_SCENARIO(ListIsUsedAgain, "The report of a read starts the next one with its list.") {
  SimFileModel& file = bench.NewFile(kPage);
  SimSource& source = bench.NewSource(file);
  const OwnList list(kPage);
  const Held<Repeater> repeater(OrGiveUp([&source] { return new Repeater(source.Get(), 3); }));
  repeater->Next(list.Get());
  if (Simulator::Random(2) == 0) source.Cancel();
  Simulator::Settle();
  list.CheckAtRest();
  Expect(repeater->GetRefCount() == 1, "a callback is still referenced");
}

// Has a reference on the source that calls it.
class Holder : public FileSource::ResultCallbackBufferList {
 public:
  explicit Holder(NativeFileSource* source) : source_(source) {
    source_->AddRef(kFile, "Orvane::Holder::Holder", __LINE__);
  }
  void Callback(CacheSource::Result_t, std::uint64_t, BufferList*, std::uint64_t) override {}

 protected:
  ~Holder() override { source_->DecRef(kFile, "Orvane::Holder::~Holder", __LINE__); }

 private:
  NativeFileSource* const source_;
};

ORVANE_SMALL_SCENARIO(CallbackHoldsTheSource,
                      "With a callback its source goes, and its other reads.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  const OwnList list(kPage);
  {
    const Held<Holder> holder(OrGiveUp([&source] { return new Holder(source.Get()); }));
    source.Get()->ReadAsyncWithList(0, list.Get(), holder.get(), 0);
  }
  source.Read(kPage, kPage);
  source.Release();
  bench.AwaitAll();
  Simulator::Settle();
  list.CheckAtRest();
}

}  // namespace
}  // namespace Orvane
