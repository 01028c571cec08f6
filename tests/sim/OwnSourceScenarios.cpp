// Sources and transactions of the application's own, and caches over its factories.
#include <algorithm>
#include <array>
#include <cstdint>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "CacheScenarioTools.h"
#include "OwnBench.h"
#include "Scenario.h"
#include "SimBench.h"
#include "SimTools.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "tests/sim/OwnSourceScenarios";
constexpr std::uint64_t kBlock = 512;

OwnAnswer AnyAnswer() {
  constexpr OwnAnswer kAnswers[] = {
      OwnAnswer::kInside, OwnAnswer::kWhole,     OwnAnswer::kLate,        OwnAnswer::kPieces,
      OwnAnswer::kShort,  OwnAnswer::kError,     OwnAnswer::kLateError,   OwnAnswer::kNothing,
      OwnAnswer::kRefuse, OwnAnswer::kThrow,     OwnAnswer::kInsideError, OwnAnswer::kLate,
      OwnAnswer::kBusy,   OwnAnswer::kLateError, OwnAnswer::kPieces,      OwnAnswer::kInside};
  return kAnswers[Simulator::Random(16)];
}

void StartSomewhere(OwnReader* reader, std::uint64_t range) {
  OwnForm form;
  form.pieces = 1 + Simulator::Random(3);
  form.cleansInside = Simulator::Random(4) == 0;
  reader->Start(Simulator::Random(range), 1 + Simulator::Random(4 * kBlock), form);
}

ORVANE_SCENARIO(OwnSourceInside, "A read of a source that answers inside the call.") {
  OwnBench own(&bench);
  OwnSource* const source = own.NewSource(1000);
  own.NewReader(own.NewCache(kBlock, 2), source).Start(0, 600);
}

ORVANE_SCENARIO(OwnSourceLate, "A read of a source that answers on a thread of its own.") {
  OwnBench own(&bench);
  OwnSource* const source = own.NewSource(300);
  source->choose = [](std::uint64_t, std::uint64_t) { return OwnAnswer::kLate; };
  own.NewReader(own.NewCache(kBlock, 1), source).Start(100, 300);
}

ORVANE_SCENARIO(OwnSourceAnyhow, "Sources that answer in every way, under several readers.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 1 + Simulator::Random(4));
  OwnSource* const source = own.NewSource(6 * kBlock - Simulator::Random(kBlock));
  source->gathers = Simulator::Random(2) == 0;
  source->choose = [](std::uint64_t, std::uint64_t) { return AnyAnswer(); };
  OwnReader& one = own.NewReader(cache, source);
  OwnReader& other = own.NewReader(cache, source);
  for (int k = 0; k < 3; ++k) {
    StartSomewhere(&one, 6 * kBlock);
    StartSomewhere(&other, 6 * kBlock);
    if (Simulator::Random(4) == 0) own.Cancel(cache, source);
    own.AwaitAll();
  }
}

ORVANE_SCENARIO(OwnTransactionsAgain,
                "Transactions are loaded again at once, disturbed meanwhile, and released early.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 2);
  OwnSource* const source = own.NewSource(5 * kBlock);
  source->choose = [](std::uint64_t, std::uint64_t) {
    return Simulator::Random(2) == 0 ? OwnAnswer::kLateError : OwnAnswer::kInside;
  };
  Crew threads;
  for (int k = 0; k < 2; ++k) {
    OwnReader* const reader = &own.NewReader(cache, source);
    threads.Start([reader] {
      for (int times = 0; times < 3; ++times) {
        StartSomewhere(reader, 4 * kBlock);
        if (Simulator::Random(2) == 0) reader->Disturb();
        if (times == 2 && Simulator::Random(2) == 0) reader->ReleaseTransaction();
        Simulator::WaitUntil([reader] { return reader->IsOver(); });
      }
    });
  }
}

ORVANE_SCENARIO(ReadUponFailure, "A read upon a failure does not meet what has failed.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 4);
  OwnSource* const source = own.NewSource(4 * kBlock);
  int failures = 1;
  source->choose = [&failures](std::uint64_t, std::uint64_t) {
    if (failures-- <= 0) return OwnAnswer::kInside;
    constexpr OwnAnswer kAnswers[] = {OwnAnswer::kError, OwnAnswer::kLateError,
                                      OwnAnswer::kInsideError, OwnAnswer::kThrow};
    return kAnswers[Simulator::Random(4)];
  };
  OwnReader& first = own.NewReader(cache, source);
  OwnReader& again = own.NewReader(cache, source);
  first.Start(0, 4 * kBlock);
  Simulator::WaitUntil([&first] { return first.IsOver(); });
  again.Start(Simulator::Random(3) * kBlock, 2 * kBlock);
  own.AwaitAll();
  if (Simulator::GetFaults() == 0 && again.Result() != CacheSource::kResultOK) {
    Simulator::Fail("a read upon a failure met what has failed");
  }
}

ORVANE_SMALL_SCENARIO(CancelBesideAThrow, "A read that a source fails by throwing is cancelled.") {
  EveryOrder::NotYet();
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 1);
  OwnSource* const source = own.NewSource(kBlock);
  source->choose = [](std::uint64_t, std::uint64_t) { return OwnAnswer::kThrow; };
  OwnReader& reader = own.NewReader(cache, source);
  const EveryOrder everyOrder;
  reader.Start(0, kBlock);
  own.Cancel(cache, source);
}

ORVANE_SCENARIO(FailureInBatch, "A batch of which some failed, came short, or gave nothing.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 6);
  OwnSource* const source = own.NewSource(6 * kBlock);
  int times = 0;
  source->choose = [&times](std::uint64_t, std::uint64_t) {
    constexpr OwnAnswer kAnswers[] = {OwnAnswer::kLateError, OwnAnswer::kShort, OwnAnswer::kNothing,
                                      OwnAnswer::kPieces};
    return ++times > 2 ? OwnAnswer::kLate : kAnswers[Simulator::Random(4)];
  };
  for (int k = 0; k < 3; ++k) StartSomewhere(&own.NewReader(cache, source), 4 * kBlock);
  own.AwaitAll();
  // What gave nothing is not kept.
  OwnReader& last = own.NewReader(cache, source);
  last.Start(5 * kBlock, kBlock);
}

ORVANE_SCENARIO(DueTimesInOrder,
                "Of those that wait for the one block, who is due first is first.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 1);
  OwnSource* const source = own.NewSource(8 * kBlock);
  source->choose = [](std::uint64_t, std::uint64_t) { return OwnAnswer::kLate; };
  source->SetGate(false);
  own.NewReader(cache, source).Start(7 * kBlock, 10);
  std::array<std::uint64_t, 4> order{0, 1, 2, 3};
  const std::uint32_t now = MTInterface::GetCurrentTimeMilli();
  for (std::size_t k = 0; k < order.size(); ++k) {
    std::swap(order[k], order[k + Simulator::Random(order.size() - k)]);
    OwnForm form;
    // Before the wrap of the clock, and behind it.
    form.dueTime = now + 1 + 2 * static_cast<std::uint32_t>(order[k]);
    if (form.dueTime == CacheSource::kDueASAP) form.dueTime = 1;
    own.NewReader(cache, source).Start(order[k] * kBlock, 10, form);
  }
  // Once each of them has been tried in vain they wait in order.
  Simulator::WaitUntil(
      [source] { return !source->GetAsked().empty() || Simulator::GetFaults() > 0; });
  const std::uint64_t enough = source->GetTimesGathersAsked() + 3 * (order.size() + 2);
  Simulator::WaitUntil([source, enough] {
    return source->GetTimesGathersAsked() >= enough || Simulator::GetFaults() > 0;
  });
  source->SetGate(true);
  own.AwaitAll();
  if (Simulator::GetFaults() > 0) return;
  const std::vector<OwnSource::Asked>& asked = source->GetAsked();
  for (std::size_t k = 2; k < asked.size(); ++k) {
    if (asked[k].offset < asked[k - 1].offset) Simulator::Fail("who is due later came first");
  }
}

ORVANE_SCENARIO(SourceIsBusy, "A source without room is asked again, and others are served.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 4);
  OwnSource* const busy = own.NewSource(4 * kBlock);
  OwnSource* const idle = own.NewSource(4 * kBlock);
  std::uint64_t left = Simulator::Random(20);
  busy->choose = [&left](std::uint64_t, std::uint64_t) {
    return left-- > 0 ? OwnAnswer::kBusy : (left = 0, OwnAnswer::kLate);
  };
  for (int k = 0; k < 2; ++k) {
    StartSomewhere(&own.NewReader(cache, busy), 4 * kBlock);
    StartSomewhere(&own.NewReader(cache, idle), 4 * kBlock);
  }
  if (Simulator::Random(4) == 0) own.Cancel(cache, busy);
  own.AwaitAll();
}

ORVANE_SCENARIO(SourceIsBusyForEver,
                "A source without room does not hold up another one's reads.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 4);
  OwnSource* const busy = own.NewSource(4 * kBlock);
  OwnSource* const idle = own.NewSource(4 * kBlock);
  busy->choose = [](std::uint64_t, std::uint64_t) { return OwnAnswer::kBusy; };
  // It stands in line for a while, behind the other, which is due earlier.
  int refusals = 2;
  idle->choose = [&refusals](std::uint64_t, std::uint64_t) {
    return refusals-- > 0 ? OwnAnswer::kBusy : OwnAnswer::kInside;
  };
  for (int k = 0; k < 2; ++k) {
    own.NewReader(cache, busy).Start(Simulator::Random(3) * kBlock, 8);
  }
  OwnReader& reader = own.NewReader(cache, idle);
  OwnForm later;
  later.dueTime = std::max<std::uint32_t>(1, MTInterface::GetCurrentTimeMilli() + 100);
  reader.Start(0, 2 * kBlock, later);
  // With less memory there may be fewer blocks than the busy one's reads hold.
  Simulator::WaitUntil([&reader] { return reader.IsOver() || Simulator::GetFaults() > 0; });
  own.Cancel(cache, busy);
  own.AwaitAll();
}

ORVANE_SMALL_SCENARIO(NoBlocks, "A cache without a factory, or with an empty one, refuses.") {
  OwnBench own(&bench);
  BufferFactory* factory = nullptr;
  if (Simulator::Random(2) == 0) factory = OwnBench::NewFactory(kBlock, 0);
  const SharedObjectAutoRef keep(factory);
  if (factory) factory->DecRef(kFile, "NoBlocks", __LINE__);
  Cache* const cache = own.NewCacheOver(factory);
  OwnSource* const source = own.NewSource(kBlock);
  cache->PreRead(source, 0, 100, 0, MTThread::kPriorityNormal);
  OwnForm refused;
  refused.mayFail = true;
  if (own.NewReader(cache, source).Start(0, 10, refused) != CacheSource::kResultError) {
    Simulator::Fail("a cache without blocks does not answer an error");
  }
  own.NewReader(cache, source).Start(0, 0);
  own.Cancel(cache, source);
}

// A buffer that the cache made meanwhile does not get.
class Lent {
 public:
  explicit Lent(BufferFactory* factory)
      : factory_(factory), buffer_(factory->GetBufferFromFactory()) {}
  ~Lent() {
    if (buffer_) factory_->ReturnBufferToFactory(buffer_);
  }
  Lent(const Lent&) = delete;
  Lent& operator=(const Lent&) = delete;
  bool IsThere() const { return buffer_ != nullptr; }

 private:
  BufferFactory* const factory_;
  Buffer* const buffer_;
};

ORVANE_SCENARIO(TwoFactories, "Caches over two factories, and a second one over what is left.") {
  OwnBench own(&bench);
  std::array<Cache*, 4> caches{own.NewCache(kBlock, 2), own.NewCache(3 * kBlock, 2)};
  BufferFactory* const factory = OwnBench::NewFactory(2 * kBlock, 2);
  const SharedObjectAutoRef keep(factory);
  factory->DecRef(kFile, "TwoFactories", __LINE__);
  try {
    if (factory->Initialize(kBlock, 2, 2, 0)) Simulator::Fail("initialised with another size");
    if (factory->GetBufferSize() != 2 * kBlock) Simulator::Fail("the size has changed");
    std::optional<Lent> lent(factory);
    caches[2] = own.NewCacheOver(factory);
    caches[3] = own.NewCacheOver(factory);
    const std::size_t one = lent->IsThere() ? 1 : 0;
    lent.reset();
    if (factory->GetNumberOfBuffersFree() != one && Simulator::GetFaults() == 0) {
      Simulator::Fail("the cache has not taken every free buffer");
    }
  } catch (const std::bad_alloc&) {
    throw SimSetupFailed();
  }
  OwnSource* const source = own.NewSource(7 * kBlock);
  source->choose = [](std::uint64_t, std::uint64_t) {
    return Simulator::Random(2) == 0 ? OwnAnswer::kLate : OwnAnswer::kInside;
  };
  for (int k = 0; k < 5; ++k) {
    StartSomewhere(&own.NewReader(caches[Simulator::Random(3)], source), 7 * kBlock);
  }
  OwnForm refused;
  refused.mayFail = true;
  const CacheSource::Result_t answer = own.NewReader(caches[3], source).Start(0, 10, refused);
  if (answer != CacheSource::kResultError && Simulator::GetFaults() == 0) {
    Simulator::Fail("a cache without blocks does not answer an error");
  }
  own.AwaitAll();
}

ORVANE_SCENARIO(SizesOfNothing, "Transactions of size 0, at the end of all, without a list.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 2);
  OwnSource* const source = own.NewSource(kBlock);
  OwnReader& reader = own.NewReader(cache, source);
  if (reader.Start(5, 0) != CacheSource::kResultOutOfRange && Simulator::GetFaults() == 0) {
    Simulator::Fail("a read of nothing does not answer out of range");
  }
  // The last block of all, which passes 2^64.
  own.NewReader(cache, source).Start(~std::uint64_t{0} - 100, 50);
  own.NewReader(cache, source).Start(~std::uint64_t{0} - 2 * kBlock, 2 * kBlock - 10);
  cache->PreRead(source, ~std::uint64_t{0} - 700, 5000, 0, MTThread::kPriorityNormal);
  own.AwaitAll();
  if (cache->Read(nullptr) != CacheSource::kResultNotSupported) Simulator::Fail("reads nothing");
}

ORVANE_SCENARIO(BufferDoesNotLock, "A buffer that refuses its lock fails the read, and only it.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 2);
  OwnSource* const source = own.NewSource(4 * kBlock);
  OwnForm refusing;
  refusing.doesNotLock = true;
  refusing.pieces = 2;
  own.NewReader(cache, source).Start(100, 800, refusing);
  OwnReader& other = own.NewReader(cache, source);
  other.Start(0, 2 * kBlock);
  own.NewReader(cache, source).Start(0, 3 * kBlock, refusing);
  own.AwaitAll();
  if (Simulator::GetFaults() == 0 && other.Result() != CacheSource::kResultOK) {
    Simulator::Fail("another's buffer has failed a read");
  }
}

ORVANE_SCENARIO(CacheGoesFirst, "A cache is released while its source has yet to answer.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 2);
  OwnSource* const source = own.NewSource(4 * kBlock);
  source->SetGate(Simulator::Random(2) == 0);
  source->choose = [](std::uint64_t, std::uint64_t) {
    return Simulator::Random(3) == 0 ? OwnAnswer::kPieces : OwnAnswer::kLate;
  };
  for (int k = 0; k < 3; ++k) StartSomewhere(&own.NewReader(cache, source), 4 * kBlock);
  if (Simulator::Random(2) == 0) MTInterface::Sleep(1);
  own.ReleaseCache(cache);
  // Not waited for: they have failed.
  own.AwaitAll();
}

}  // namespace
}  // namespace Orvane
