// Blocks that are being filled while a write moves the end of the data, or covers them.
#include <algorithm>
#include <cstdint>
#include <new>

#include "OwnBench.h"
#include "Scenario.h"
#include "SimBench.h"
#include "SimTools.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "tests/sim/OvertakenFillScenarios";
constexpr std::uint64_t kBlock = 1024;

// A file source of which only the size is told. What a read finds is settled when it starts.
// Requests are reported when the gate for their kind is open.
class GrowingSource : public FileSource {
 public:
  explicit GrowingSource(std::uint64_t bytes) : bytes_(bytes) {}

  void OpenForReads() { isOpenForReads_ = true; }
  void OpenForWrites() { isOpenForWrites_ = true; }
  std::uint64_t GetReads() const { return reads_; }
  std::uint64_t GetWrites() const { return writes_; }

  Result_t ReadAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                      ResultCallbackBufferList* callback, std::uint32_t) override {
    const std::uint64_t size = list->GetTotalSizeOfBuffers();
    const std::uint64_t there = std::clamp(bytes_, offset, offset + size) - offset;
    const Result_t some = there == size ? kResultOK : kResultPartial;
    ++reads_;
    AnswerLater({offset, list, callback, there == 0 ? kResultOutOfRange : some, there},
                &isOpenForReads_);
    return kResultPending;
  }

  Result_t WriteAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                       ResultCallbackBufferList* callback, std::uint32_t) override {
    const std::uint64_t size = list->GetTotalSizeOfBuffers();
    bytes_ = std::max(bytes_, offset + size);
    ++writes_;
    AnswerLater({offset, list, callback, kResultOK, size}, &isOpenForWrites_);
    return kResultPending;
  }

  // A request cannot be stopped, but it comes to its end.
  void CancelNonCached() override {
    OpenForReads();
    OpenForWrites();
    Simulator::WaitUntil([this] { return outstanding_ == 0; });
  }
  bool CanGatherReads() override { return true; }

 private:
  struct Answer {
    std::uint64_t offset;
    BufferList* list;
    ResultCallbackBufferList* callback;
    Result_t result;
    std::uint64_t bytes;
  };

  void AnswerLater(const Answer& answer, const bool* isOpen) {
    constexpr const char* kFunction = "Orvane::GrowingSource::AnswerLater";
    AddRef(kFile, kFunction, __LINE__);
    answer.list->AddRef(kFile, kFunction, __LINE__);
    answer.callback->AddRef(kFile, kFunction, __LINE__);
    ++outstanding_;
    const SimulatorAllocations::Exempt exempt;
    Simulator::Spawn([=, this] {
      Simulator::WaitUntil([isOpen] { return *isOpen; });
      answer.callback->Callback(answer.result, answer.offset, answer.list, answer.bytes);
      answer.callback->DecRef(kFile, kFunction, __LINE__);
      answer.list->DecRef(kFile, kFunction, __LINE__);
      --outstanding_;
      DecRef(kFile, kFunction, __LINE__);
    });
  }

  std::uint64_t bytes_;
  bool isOpenForReads_ = false;
  bool isOpenForWrites_ = false;
  std::uint64_t reads_ = 0;
  std::uint64_t writes_ = 0;
  std::uint64_t outstanding_ = 0;
};

// A synchronous read or write of a block.
class BlockRequest {
 public:
  void Read(GrowingSource* source, std::uint64_t offset) {
    Run([=, this] { return source->ReadWithList(offset, list_.Get(), &bytes_); });
  }
  void Write(GrowingSource* source, std::uint64_t offset) {
    Run([=, this] { return source->WriteWithList(offset, list_.Get(), &bytes_); });
  }
  bool IsOver() const { return isOver_; }
  bool HasAll() const { return result_ == CacheSource::kResultOK && bytes_ == kBlock; }

 private:
  template <class Request>
  void Run(Request request) {
    try {
      result_ = request();
    } catch (const std::bad_alloc&) {
      if (Simulator::GetFaults() == 0) Simulator::Fail("memory is short without a reason");
    }
    isOver_ = true;
  }

  OwnList list_{kBlock, /*wholePages=*/false};
  CacheSource::Result_t result_ = CacheSource::kResultError;
  std::uint64_t bytes_ = 0;
  bool isOver_ = false;
};

ORVANE_SCENARIO(AppendOvertakesAFill,
                "The end moves behind a block while it is filled up to where the end was.") {
  OwnBench own(&bench);
  const Held<GrowingSource> source(OrGiveUp([] { return new GrowingSource(kBlock / 2); }));
  source->UseCache(own.NewCache(kBlock, 3));
  source->OpenForWrites();
  BlockRequest before;
  BlockRequest append;
  BlockRequest after;
  Crew threads;
  threads.Start([&] { before.Read(source.get(), 0); });
  Simulator::WaitUntil([&] { return source->GetReads() > 0 || before.IsOver(); });
  append.Write(source.get(), 2 * kBlock);
  // While that fill is still under way, or when it has ended.
  const bool isMeanwhile = Simulator::Random(2) == 0;
  if (isMeanwhile) {
    threads.Start([&] { after.Read(source.get(), 0); });
    MTInterface::Sleep(static_cast<std::uint32_t>(Simulator::Random(4)));
  }
  source->OpenForReads();
  Simulator::WaitUntil([&before] { return before.IsOver(); });
  if (!isMeanwhile) after.Read(source.get(), 0);
  threads.Join();
  source->Cancel();
  if (Simulator::GetFaults() > 0) return;
  Expect(append.HasAll(), "a write has failed without a reason");
  Expect(after.HasAll(), "a read behind an append finds the old end of the file");
}

ORVANE_SCENARIO(WriteEndsDuringAFill, "A block is filled while a write that covers it ends.") {
  OwnBench own(&bench);
  const Held<GrowingSource> source(OrGiveUp([] { return new GrowingSource(kBlock); }));
  source->UseCache(own.NewCache(kBlock, 2));
  BlockRequest write;
  BlockRequest read;
  Crew threads;
  threads.Start([&] { write.Write(source.get(), 0); });
  Simulator::WaitUntil([&] { return source->GetWrites() > 0 || write.IsOver(); });
  threads.Start([&] { read.Read(source.get(), 0); });
  Simulator::WaitUntil([&] { return source->GetReads() > 0 || read.IsOver(); });
  source->OpenForWrites();
  if (Simulator::Random(2) == 0) Simulator::WaitUntil([&write] { return write.IsOver(); });
  source->OpenForReads();
  threads.Join();
  source->Cancel();
  if (Simulator::GetFaults() > 0) return;
  Expect(write.HasAll(), "a write has failed without a reason");
  Expect(read.HasAll(), "a write has failed a read that began beside it");
}

}  // namespace
}  // namespace Orvane
