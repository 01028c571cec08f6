// Any operations in any order, from several threads and from inside reports.
#include <array>
#include <memory>

#include "Scenario.h"
#include "SimBench.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kPage = SimFileModel::kPage;
constexpr std::uint64_t kFileBytes = 6 * kPage;

// A source, and whether somebody is closing and opening it: one at a time does.
struct Place {
  SimSource* source = nullptr;
  bool isMoving = false;
};

struct Sequence : std::enable_shared_from_this<Sequence> {
  SimBench* bench = nullptr;
  std::array<Place, 4> places;

  void Do(unsigned operations, unsigned depth);
  void DoOne(unsigned depth);
  void Read(Place* place, bool wait, unsigned depth);
  void Write(Place* place, bool wait, unsigned depth);
  void CloseAndOpen(Place* place);
  SimRequestForm NewForm(const SimSource& source, std::uint64_t pages, bool write, unsigned depth);
};

std::uint32_t AnyDueTime() {
  if (Simulator::Random(2) == 0) return CacheSource::kDueASAP;
  return MTInterface::GetCurrentTimeMilli() + static_cast<std::uint32_t>(Simulator::Random(40)) - 9;
}

SimRequestForm Sequence::NewForm(const SimSource& source, std::uint64_t pages, bool write,
                                 unsigned depth) {
  SimRequestForm form;
  form.anywhere = !write && source.GetCache() && Simulator::Random(2) == 0;
  form.pieces = 1 + Simulator::Random(pages);
  form.asList = Simulator::Random(2) == 0;
  form.dueTime = AnyDueTime();
  if (depth < 2 && Simulator::Random(3) == 0) {
    const bool throws = Simulator::Random(4) == 0;
    const SimulatorAllocations::Exempt exempt;
    form.onReport = [self = shared_from_this(), depth, throws](SimRequest&) {
      self->Do(1 + static_cast<unsigned>(Simulator::Random(2)), depth + 1);
      if (throws) throw 1;
    };
  }
  return form;
}

void Sequence::Read(Place* place, bool wait, unsigned depth) {
  SimSource& source = *place->source;
  std::uint64_t offset = Simulator::Random(kFileBytes / kPage + 2) * kPage;
  std::uint64_t size = (1 + Simulator::Random(3)) * kPage;
  SimRequestForm form = NewForm(source, size / kPage, false, wait ? 2 : depth);
  if (form.anywhere) {
    offset += Simulator::Random(kPage);
    size -= Simulator::Random(kPage);
  }
  if (wait) {
    source.ReadNow(offset, size, std::move(form));
  } else {
    source.Read(offset, size, std::move(form));
  }
}

void Sequence::Write(Place* place, bool wait, unsigned depth) {
  SimSource& source = *place->source;
  const std::uint64_t offset = Simulator::Random(kFileBytes / kPage + 1) * kPage;
  const std::uint64_t size = (1 + Simulator::Random(2)) * kPage;
  SimRequestForm form = NewForm(source, size / kPage, true, wait ? 2 : depth);
  if (wait) {
    source.WriteNow(offset, size, std::move(form));
  } else {
    source.Write(offset, size, std::move(form));
  }
}

void Sequence::CloseAndOpen(Place* place) {
  if (place->isMoving) return;
  place->isMoving = true;
  place->source->Close();
  if (!place->source->Open() && Simulator::GetFaults() == 0) {
    Simulator::Fail("a source that was closed does not open");
  }
  place->isMoving = false;
}

// Synchronous calls are left out of reports: most threads that report must not wait.
void Sequence::DoOne(unsigned depth) {
  Place* const place = &places[Simulator::Random(places.size())];
  SimSource& source = *place->source;
  Cache* const cache = source.GetCache();
  const bool mayWait = depth == 0;
  const std::uint64_t offset = Simulator::Random(kFileBytes);
  const std::uint64_t size = 1 + Simulator::Random(2 * kPage);
  switch (Simulator::Random(14)) {
    case 0:
      Write(place, mayWait, depth);
      break;
    case 1:
    case 2:
      Write(place, false, depth);
      break;
    case 3:
      source.Cancel();
      break;
    case 4:
      if (cache) source.Purge();
      break;
    case 5:
      if (cache) source.Invalidate(offset, size);
      break;
    case 6:
      CloseAndOpen(place);
      break;
    case 7:
      source.PreRead(offset, size, AnyDueTime());
      break;
    case 8:
      if (cache) cache->CollectCacheStats(Simulator::Random(2) == 0);
      break;
    case 9:
    case 10:
      Read(place, mayWait, depth);
      break;
    default:
      Read(place, false, depth);
      break;
  }
}

void Sequence::Do(unsigned operations, unsigned depth) {
  for (unsigned k = 0; k < operations; ++k) DoOne(depth);
}

ORVANE_SCENARIO(AnySequence, "Any operations in any order, from three threads and from reports.") {
  const auto sequence = [] {
    const SimulatorAllocations::Exempt exempt;
    return std::make_shared<Sequence>();
  }();
  sequence->bench = &bench;
  SimFileModel& first = bench.NewFile(kFileBytes);
  SimFileModel& second = bench.NewFile(kFileBytes - 104);
  Cache* const small = bench.NewCache(kPage, 3);
  sequence->places[0].source = &bench.NewSource(first);
  sequence->places[1].source = &bench.NewSource(first, small);
  sequence->places[2].source = &bench.NewSource(second, small);
  sequence->places[3].source = &bench.NewSource(second, bench.NewCache(2 * kPage, 2));
  int running = static_cast<int>(Simulator::Random(3));
  for (int k = running; k > 0; --k) {
    const SimulatorAllocations::Exempt exempt;
    Simulator::Spawn([sequence, &running] {
      sequence->Do(3 + static_cast<unsigned>(Simulator::Random(5)), 0);
      --running;
    });
  }
  sequence->Do(4 + static_cast<unsigned>(Simulator::Random(6)), 0);
  Simulator::WaitUntil([&running] { return running == 0; });
  bench.AwaitAll();
}

}  // namespace
}  // namespace Orvane
