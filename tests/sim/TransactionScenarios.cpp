// Transactions that threads of the application complete by themselves, without a cache.
#include <array>
#include <cstdint>
#include <new>

#include "OwnBench.h"
#include "Scenario.h"
#include "SimBench.h"
#include "SimTools.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "tests/sim/TransactionScenarios";
constexpr std::uint64_t kOffset = 1000;

// A loaded transaction over 64 bytes, and what it reported.
class Loaded {
 public:
  static constexpr std::uint64_t kBytes = 64;

  explicit Loaded(OwnSource* source) {
    try {
      callback_ = new Told(this);
      auto* const buffer = new HostBuffer(memory_.data(), memory_.size());
      const SharedObjectAutoRef keep(buffer);
      buffer->DecRef(kFile, "Orvane::Loaded::Loaded", __LINE__);
      list_ = new BufferList(buffer, /*adoptReference=*/false, /*capacity=*/1);
      transaction_ = new CacheTransaction;
    } catch (const std::bad_alloc&) {
      Release();
      throw SimSetupFailed();
    }
    if (!transaction_->Setup(source, kOffset, list_, callback_, 0, MTThread::kPriorityNormal)) {
      Release();
      throw SimSetupFailed();
    }
  }
  ~Loaded() { Release(); }
  Loaded(const Loaded&) = delete;
  Loaded& operator=(const Loaded&) = delete;

  CacheTransaction* Get() { return transaction_; }
  // Copies bytes that tell their place, counted from 1.
  void Copy(std::uint64_t from, std::uint64_t to, CacheSource::Result_t result) {
    std::array<unsigned char, kBytes> data{};
    for (std::uint64_t k = from; k < to; ++k) data[k - from] = static_cast<unsigned char>(k + 1);
    transaction_->CopyInto(data.data(), kOffset + from, to - from, result, nullptr, nullptr);
  }
  int Reports() const { return reports_; }
  void Expect(CacheSource::Result_t result, std::uint64_t bytes) const {
    if (Simulator::GetFaults() > 0) return;
    if (reports_ != 1) Simulator::Fail("not reported once");
    if (result_ != result || bytes_ != bytes) Simulator::Fail("reported with another result");
    for (std::uint64_t k = 0; k < bytes; ++k) {
      if (memory_[k] != k + 1) Simulator::Fail("reported before a byte was there");
    }
  }

 private:
  class Told : public CacheTransaction::StatusCallback {
   public:
    explicit Told(Loaded* loaded) : loaded_(loaded) {}
    void Callback(CacheSource::Result_t result, CacheTransaction*, std::uint64_t bytes) override {
      ++loaded_->reports_;
      loaded_->result_ = result;
      loaded_->bytes_ = bytes;
    }

   private:
    Loaded* const loaded_;
  };

  void Release() {
    if (transaction_) transaction_->DecRef(kFile, "Orvane::Loaded::Release", __LINE__);
    if (list_) list_->DecRef(kFile, "Orvane::Loaded::Release", __LINE__);
    if (callback_) callback_->DecRef(kFile, "Orvane::Loaded::Release", __LINE__);
    transaction_ = nullptr;
    list_ = nullptr;
    callback_ = nullptr;
  }

  std::array<unsigned char, kBytes> memory_{};
  Told* callback_ = nullptr;                 // one reference
  BufferList* list_ = nullptr;               // one reference
  CacheTransaction* transaction_ = nullptr;  // one reference
  int reports_ = 0;
  CacheSource::Result_t result_ = CacheSource::kResultNone;
  std::uint64_t bytes_ = 0;
};

ORVANE_SMALL_SCENARIO(TwoCopyIntoOne, "Two threads copy their halves into one transaction.") {
  OwnBench own(&bench);
  Loaded loaded(own.NewSource(8));
  Crew threads;
  threads.Start([&loaded] { loaded.Copy(0, 30, CacheSource::kResultOK); });
  loaded.Copy(30, 64, CacheSource::kResultOK);
  threads.Join();
  loaded.Expect(CacheSource::kResultOK, 64);
}

ORVANE_SMALL_SCENARIO(EndBeforeBeginning, "The end of the data is told before what leads to it.") {
  OwnBench own(&bench);
  Loaded loaded(own.NewSource(8));
  Crew threads;
  threads.Start(
      [&loaded] { loaded.Get()->Complete(kOffset + 40, 0, CacheSource::kResultPartial); });
  threads.Start(
      [&loaded] { loaded.Get()->Complete(kOffset + 50, 0, CacheSource::kResultOutOfRange); });
  loaded.Copy(0, 40, CacheSource::kResultOK);
  threads.Join();
  loaded.Expect(CacheSource::kResultPartial, 40);
}

ORVANE_SMALL_SCENARIO(FailureMeanwhile, "A transaction fails while the last of it is copied.") {
  OwnBench own(&bench);
  Loaded loaded(own.NewSource(8));
  Crew threads;
  threads.Start([&loaded] { loaded.Get()->SetResult(CacheSource::kResultFailed); });
  loaded.Copy(0, 64, CacheSource::kResultOK);
  threads.Join();
  if (loaded.Reports() != 1) Simulator::Fail("not reported once");
}

ORVANE_SMALL_SCENARIO(TwoTakeRanges, "Two threads take ranges of one transaction and return one.") {
  OwnBench own(&bench);
  Loaded loaded(own.NewSource(8));
  Crew threads;
  const auto work = [&loaded](bool returns) {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    while (loaded.Get()->GetRangeToComplete(offset, size, 32)) {
      if (returns) {
        returns = false;
        loaded.Get()->ReturnRangeToComplete(offset, size);
      } else {
        loaded.Copy(offset - kOffset, offset - kOffset + size, CacheSource::kResultOK);
      }
    }
  };
  threads.Start([&work] { work(true); });
  work(false);
  threads.Join();
  loaded.Expect(CacheSource::kResultOK, 64);
}

}  // namespace
}  // namespace Orvane
