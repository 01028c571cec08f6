// The arithmetic of ranges against the same in 128 bits, where nothing wraps.
#include <algorithm>
#include <optional>

#include "Cache/RangeList.h"
#include "Cache/TransactionInternals.h"
#include "CacheSource.h"
#include "CacheTransaction.h"
#include "FuzzTools.h"
#include "PhysMemInterface.h"

namespace Orvane::Fuzz {
namespace {

__extension__ using Wide = unsigned __int128;

constexpr std::uint64_t kTop = ByteRange::kLargestOffset;

struct WideRange {
  Wide from = 0;
  Wide to = 0;
};

WideRange Widen(std::uint64_t offset, std::uint64_t size) {
  return {offset, Wide{offset} + size};
}

bool Fits(const WideRange& range) {
  return range.to <= kTop;
}

// What a request becomes, for ranges that do not wrap; nothing if the two do not meet.
std::optional<WideRange> Intersect(const WideRange& request, const WideRange& range) {
  const WideRange both{std::max(request.from, range.from), std::min(request.to, range.to)};
  if (both.from < both.to) return both;
  // Nothing in common. What still counts as meeting:
  const bool requestIsEmpty = request.from == request.to;
  const bool rangeIsEmpty = range.from == range.to;
  if (requestIsEmpty && !rangeIsEmpty) {
    if (request.from >= range.from && request.from < range.to) return request;
    if (request.from == range.to) return range;
  }
  const bool reachesEmptyRange = request.from < range.from && request.to >= range.from;
  if (rangeIsEmpty && reachesEmptyRange) return range;
  return std::nullopt;
}

class Source : public CacheSource {
 public:
  bool CanGatherReads() override { return true; }

 protected:
  ~Source() override = default;
  Result_t ReadTransaction(CacheTransaction*) override { return kResultNotSupported; }
  void CancelAllTransactions() override {}
};

// Made by the first run that needs it and kept: each run loads the transaction anew.
struct Subject {
  Source* const source = new Source;
  CacheTransaction* const transaction = new CacheTransaction;
};

Subject& TheSubject() {
  static Subject subject;
  return subject;
}

void CheckEnd(Input* input) {
  const std::uint64_t offset = input->Number();
  const std::uint64_t size = input->Number();
  const Wide end = std::min(Widen(offset, size).to, Wide{kTop});
  ORVANE_FUZZ_CHECK((ByteRange{offset, size}.End() == end));
}

// A second number that often lies near the first.
std::uint64_t Near(Input* input, std::uint64_t number) {
  const unsigned distance = input->Byte();
  return distance < 0xC0 ? number + distance - 0x60 : input->Number();
}

void CheckIntersection(Input* input) {
  const std::uint64_t rangeOffset = input->Number();
  const std::uint64_t rangeSize = input->Number();
  const std::uint64_t oldOffset = Near(input, rangeOffset);
  const std::uint64_t oldSize = Near(input, rangeOffset + rangeSize - oldOffset);
  std::uint64_t offset = oldOffset;
  std::uint64_t size = oldSize;
  const bool meet = CacheSource::GetRangeIntersection(offset, size, rangeOffset, rangeSize);
  if (!meet) ORVANE_FUZZ_CHECK(offset == oldOffset && size == oldSize);

  const WideRange request = Widen(oldOffset, oldSize);
  const WideRange range = Widen(rangeOffset, rangeSize);
  if (!Fits(request) || !Fits(range)) return;
  const std::optional<WideRange> expected = Intersect(request, range);
  ORVANE_FUZZ_CHECK(meet == expected.has_value());
  if (meet) ORVANE_FUZZ_CHECK(offset == expected->from && size == expected->to - expected->from);
}

// The first pending range behind a place, of a transaction of which [cut.from, cut.to) was taken.
std::optional<WideRange> PendingBehind(const WideRange& all, const WideRange& cut, Wide from) {
  const WideRange first{std::max(all.from, from), cut.from};
  if (first.from < first.to) return first;
  const WideRange second{std::max(cut.to, from), all.to};
  if (second.from < second.to) return second;
  return std::nullopt;
}

void ExpectPending(const WideRange& all, const WideRange& cut, std::uint64_t from) {
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  const bool found =
      TransactionInternals::PeekRange(TheSubject().transaction, from, &offset, &size);
  const std::optional<WideRange> expected = PendingBehind(all, cut, from);
  ORVANE_FUZZ_CHECK(found == expected.has_value());
  if (found) ORVANE_FUZZ_CHECK(offset == expected->from && size == expected->to - expected->from);
}

// A part of a transaction is taken, looked for, and given back.
void CheckTransaction(Input* input) {
  CacheTransaction* const transaction = TheSubject().transaction;
  const std::uint64_t start = input->Number();
  const std::uint64_t total = std::max<std::uint64_t>(input->Number(), 1);
  const WideRange all = Widen(start, total);
  const bool loaded =
      TransactionInternals::SetupForPreRead(transaction, TheSubject().source, start, total,
                                            CacheSource::kDueASAP, MTThread::kPriorityNormal);
  ORVANE_FUZZ_CHECK(loaded == Fits(all));
  if (!loaded) return;

  std::uint64_t offset = Near(input, start);
  std::uint64_t size = Near(input, start + total - offset);
  WideRange request = Widen(offset, size);
  request.to = std::min(request.to, Wide{kTop});
  const std::optional<WideRange> met = Intersect(request, all);
  const bool reserved = transaction->Reserve(offset, size);
  ORVANE_FUZZ_CHECK(reserved == (met && met->from < met->to));
  const std::uint64_t place = Near(input, offset);
  if (!reserved) return ExpectPending(all, {all.from, all.from}, place);
  ORVANE_FUZZ_CHECK(offset == met->from && size == met->to - met->from);
  ExpectPending(all, *met, place);
  ExpectPending(all, *met, 0);

  transaction->ReturnRangeToComplete(offset, size);
  ORVANE_FUZZ_CHECK(transaction->GetRangeToComplete(offset, size, ~std::uint64_t{0}));
  ORVANE_FUZZ_CHECK(offset == start && size == total);
}

void CheckPages(Input* input) {
  const std::uint64_t place = input->Number();
  const std::uint64_t size = input->Number();
  const bool isWhole = place != 0 && place % kPageSize == 0 && size % kPageSize == 0;
  void* const address = reinterpret_cast<void*>(static_cast<std::uintptr_t>(place));
  ORVANE_FUZZ_CHECK(PhysMemInterface::GetNumberOfValidPagesForBuffer(address, size) ==
                    (isWhole ? size / kPageSize : 0));
}

void CheckAlign(Input* input) {
  const std::uint64_t offset = input->Number();
  const std::uint64_t aligned = TheSubject().source->Align(offset);
  ORVANE_FUZZ_CHECK(aligned % kPageSize == 0 && aligned <= offset && offset - aligned < kPageSize);
}

}  // namespace
}  // namespace Orvane::Fuzz

// One check for each input, and so many inputs a second.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace Orvane::Fuzz;
  Input input(data, size);
  switch (input.Below(8)) {
    case 0:
      CheckEnd(&input);
      break;
    case 1:
      CheckPages(&input);
      break;
    case 2:
      CheckAlign(&input);
      break;
    case 3:
    case 4:
      CheckTransaction(&input);
      break;
    default:
      CheckIntersection(&input);
      break;
  }
  return 0;
}
