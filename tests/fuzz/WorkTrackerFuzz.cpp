// Range lists and work trackers against sets of bits.
//
// The space is cut at 65 marks into 64 segments, one bit each. Where the marks lie depends on the
// ruler, so that the same model serves ranges of a few bytes and ranges up to the largest offset.
#include <algorithm>
#include <bit>
#include <optional>
#include <stdexcept>

#include "Cache/WorkTracker.h"
#include "FuzzTools.h"

namespace Orvane::Fuzz {
namespace {

using Mark = unsigned;
constexpr Mark kLastMark = 64;
constexpr Mark kBeyond = kLastMark + 1;  // an end behind the last mark
constexpr std::uint64_t kTop = ByteRange::kLargestOffset;

class Ruler {
 public:
  explicit Ruler(unsigned kind) : kind_(kind % 4) {}
  std::uint64_t At(Mark mark) const {
    switch (kind_) {
      case 0:  // bytes
        return mark;
      case 1:  // the whole space
        return mark == kLastMark ? kTop : std::uint64_t{mark} << 58;
      case 2:  // the last bytes
        return mark == 0 ? 0 : kTop - kLastMark + mark;
      default:  // the first and the last ones
        return mark <= 32 ? mark : kTop - kLastMark + mark;
    }
  }

 private:
  const unsigned kind_;
};

// A range between marks and the size that asks for it, which may be one for "as much as there is".
struct Request {
  Mark from = 0;
  Mark to = 0;
  std::uint64_t size = 0;
};

Request TakeRequest(Input* input, const Ruler& ruler) {
  const Mark from = input->Below(kLastMark + 1);
  const unsigned length = input->Byte();
  if (length >= 0xF8) {
    return {from, ruler.At(kLastMark) == kTop ? kLastMark : kBeyond, kTop};
  }
  const Mark to = std::min(from + length % 32, kLastMark);
  return {from, to, ruler.At(to) - ruler.At(from)};
}

// What a RangeList holds.
class Bits {
 public:
  struct Run {
    Mark from = 0;
    Mark to = 0;
    bool found = false;
  };

  bool IsEmpty() const { return bits_ == 0; }
  bool Holds(Mark mark) const { return mark < kLastMark && (bits_ >> mark & 1) != 0; }
  void Clear() { bits_ = 0; }
  void Add(Mark from, Mark to) { bits_ |= Between(from, to); }
  Mark EndOf(Mark inside) const {
    return inside + static_cast<Mark>(std::countr_one(bits_ >> inside));
  }
  Mark StartOf(Mark inside) const {
    return inside + 1 - static_cast<Mark>(std::countl_one(bits_ << (kLastMark - 1 - inside)));
  }
  // The run that ends behind a mark first.
  Run RunBehind(Mark mark) const {
    if (mark >= kLastMark || bits_ >> mark == 0) return {};
    const Mark inside = mark + static_cast<Mark>(std::countr_zero(bits_ >> mark));
    return {StartOf(inside), EndOf(inside), true};
  }
  std::size_t CountRuns() const {
    return static_cast<std::size_t>(std::popcount(bits_ & ~(bits_ << 1)));
  }
  // Where it would be cut; a request of nothing finds its start if that is held.
  Run FindCut(Mark from, Mark to) const {
    if (Holds(from)) return {from, std::min(to, EndOf(from)), true};
    if (to <= from || to == kBeyond || !Holds(to - 1)) return {};
    return {StartOf(to - 1), to, true};
  }
  Run Take(Mark from, Mark to) {
    const Run run = FindCut(from, to);
    bits_ &= ~Between(run.from, run.to);
    return run;
  }

 private:
  static std::uint64_t Below(Mark mark) {
    return mark >= kLastMark ? kTop : (std::uint64_t{1} << mark) - 1;
  }
  static std::uint64_t Between(Mark from, Mark to) { return Below(to) & ~Below(from); }

  std::uint64_t bits_ = 0;
};

class ListRun {
 public:
  ListRun(Input* input, const Ruler& ruler)
      : input_(input), ruler_(ruler), most_(input->Flag() ? 3 : 64), list_(most_) {}

  void Run() {
    while (!input_->IsEmpty()) {
      Step();
      ORVANE_FUZZ_CHECK(list_.Count() == bits_.CountRuns());
    }
    ExpectSame();
  }

 private:
  void Step() {
    const unsigned kind = input_->Below(8);
    if (kind == 7) return Look();
    const Request request = TakeRequest(input_, ruler_);
    if (kind < 4) {
      // Where the ruler ends before the space does, nothing can be said about the rest.
      if (request.to != kBeyond) Add(request);
    } else {
      Take(request);
    }
  }
  void Add(const Request& request) {
    Bits after = bits_;
    after.Add(request.from, request.to);
    bool thrown = false;
    try {
      list_.Add({ruler_.At(request.from), request.size});
    } catch (const std::length_error&) {
      thrown = true;
    }
    ORVANE_FUZZ_CHECK(thrown == (after.CountRuns() > most_));
    if (!thrown) bits_ = after;
  }
  void Take(const Request& request) {
    Bits after = bits_;
    const Bits::Run run = after.Take(request.from, request.to);
    ByteRange cut;
    bool thrown = false;
    try {
      cut = list_.Take({ruler_.At(request.from), request.size});
    } catch (const std::length_error&) {
      thrown = true;
    }
    ORVANE_FUZZ_CHECK(thrown == (after.CountRuns() > most_));
    if (thrown) return;
    bits_ = after;
    const std::uint64_t offset = run.found ? ruler_.At(run.from) : 0;
    ORVANE_FUZZ_CHECK(cut.offset == offset);
    ORVANE_FUZZ_CHECK(cut.size == (run.found ? ruler_.At(run.to) - offset : 0));
  }
  void Look() {
    const Mark mark = input_->Below(kLastMark + 8);
    if (mark > kLastMark) {
      list_.Clear();
      return bits_.Clear();
    }
    const Bits::Run run = bits_.RunBehind(mark);
    const ByteRange* const found = list_.FindEndingBehind(ruler_.At(mark));
    ORVANE_FUZZ_CHECK((found != nullptr) == run.found);
    if (found) ExpectRange(*found, run);
  }
  void ExpectRange(const ByteRange& range, const Bits::Run& run) {
    ORVANE_FUZZ_CHECK(range.offset == ruler_.At(run.from));
    ORVANE_FUZZ_CHECK(range.End() == ruler_.At(run.to));
  }
  void ExpectSame() {
    Mark from = 0;
    for (std::size_t i = 0; i < list_.Count(); ++i) {
      const Bits::Run run = bits_.RunBehind(from);
      ORVANE_FUZZ_CHECK(run.found);
      ExpectRange(list_.At(i), run);
      from = run.to;
    }
    ORVANE_FUZZ_CHECK(list_.IsEmpty() == bits_.IsEmpty());
  }

  Input* const input_;
  const Ruler ruler_;
  const std::size_t most_;
  RangeList list_;
  Bits bits_;
};

// The contract of WorkTracker, in marks.
class TrackerModel {
 public:
  explicit TrackerModel(Mark newTotal) { Start(newTotal); }

  void Reset(Mark newTotal) {
    if (reportDue_) Report();
    Start(newTotal);
  }
  // Inside of the report.
  void ResetOnReport(std::optional<Mark> newTotal) { resetOnReport_ = newTotal; }
  void Complete(const Request& request, WorkCode code) {
    if (isFinished || code == kWorkPending) return;
    if (code == kWorkFailed || code == kWorkError) return Finish(code, 0);
    if (code != kWorkOutOfRange) MarkDone(request);
    if (code == kWorkPartial) NameEnd(request.from, request.to, code);
    if (code == kWorkOutOfRange) NameEnd(request.from, request.from, code);
    FinishIfComplete();
  }
  void ReturnRange(const Request& request) {
    ++returns;
    if (isFinished || request.from >= total) return;
    pending.Add(request.from, std::min(request.to, total));
  }
  void Return() {
    if (--borrows == 0 && reportDue_) Report();
  }

  Mark total = 0;
  Bits pending;
  bool isFinished = false;
  WorkCode result = kWorkPending;
  Mark bytesDone = 0;
  unsigned borrows = 0;
  unsigned returns = 0;
  unsigned reports = 0;

 private:
  void Start(Mark newTotal) {
    total = dataEnd_ = newTotal;
    pending.Clear();
    done_.Clear();
    pending.Add(0, total);
    said_ = result = kWorkPending;
    bytesDone = 0;
    isFinished = reportDue_ = false;
  }
  void MarkDone(const Request& request) {
    if (request.from >= total) return;
    const Mark to = std::min(request.to, total);
    pending.Take(request.from, to);
    done_.Add(request.from, to);
  }
  void NameEnd(Mark from, Mark end, WorkCode code) {
    if (from >= total && end > 0) return;
    end = std::min(end, total);
    const bool isFirst = said_ == kWorkPending;
    if (isFirst || end < dataEnd_ || (end == dataEnd_ && code == kWorkPartial)) said_ = code;
    dataEnd_ = std::min(dataEnd_, end);
  }
  void FinishIfComplete() {
    if (dataEnd_ == 0) {
      const bool nobodyIsLeft = !pending.Holds(0);
      if (said_ == kWorkPending || !(done_.IsEmpty() || done_.Holds(0) || nobodyIsLeft)) return;
      return Finish(said_, 0);
    }
    if (!done_.Holds(0) || done_.EndOf(0) < dataEnd_) return;
    Finish(said_ == kWorkPending ? kWorkDone : kWorkPartial, dataEnd_);
  }
  void Finish(WorkCode code, Mark bytes) {
    isFinished = reportDue_ = true;
    result = code;
    bytesDone = bytes;
    if (borrows == 0) Report();
  }
  void Report() {
    reportDue_ = false;
    ++reports;
    if (resetOnReport_) Start(*resetOnReport_);
  }

  Bits done_;
  Mark dataEnd_ = 0;
  WorkCode said_ = kWorkPending;
  bool reportDue_ = false;
  std::optional<Mark> resetOnReport_;
};

class TrackerRun : public WorkTracker::WorkResultCallback {
 public:
  TrackerRun(Input* input, const Ruler& ruler)
      : input_(input),
        ruler_(ruler),
        model_(input->Below(kLastMark + 1)),
        tracker_(ruler_.At(model_.total)) {
    tracker_.SetResultCallback(this);
  }

  void Run() {
    while (!input_->IsEmpty()) {
      Step();
      std::uint64_t bytes = 1;
      ORVANE_FUZZ_CHECK(tracker_.GetResult(&bytes) == model_.result);
      ORVANE_FUZZ_CHECK(bytes == ruler_.At(model_.bytesDone));
      ORVANE_FUZZ_CHECK(reports_ == model_.reports);
    }
    ExpectSame();
    while (model_.borrows > 0) Return();
  }

 private:
  void OnWorkResult(WorkCode code, WorkTracker* tracker, std::uint64_t bytesDone) override {
    ORVANE_FUZZ_CHECK(tracker == &tracker_ && code != kWorkPending);
    std::uint64_t bytes = 0;
    ORVANE_FUZZ_CHECK(tracker->GetResult(&bytes) == code && bytes == bytesDone);
    ++reports_;
    if (resetOnReport_) tracker->Reset(ruler_.At(*resetOnReport_));
  }

  void Step() {
    const unsigned kind = input_->Below(16);
    switch (kind) {
      case 0:
      case 1:
        return GetNextRange();
      case 2:
      case 3:
      case 4:
        return Reserve();
      case 5:
      case 6: {
        const Request request = TakeRequest(input_, ruler_);
        tracker_.ReturnRange(ruler_.At(request.from), request.size);
        return model_.ReturnRange(request);
      }
      case 7:
        return Peek(input_->Below(kLastMark + 1));
      case 8:
        return Borrow();
      case 9:
        return Return();
      case 10:
        return Reset();
      case 11:
        return Complete(kWorkPartial);
      case 12:
        return Complete(kWorkOutOfRange);
      case 13:
        return Complete(static_cast<WorkCode>(input_->Below(kWorkError + 1)));
      default:
        return Complete(kWorkDone);
    }
  }
  void GetNextRange() {
    const unsigned length = input_->Byte();
    const Bits::Run first = model_.isFinished ? Bits::Run{} : model_.pending.RunBehind(0);
    const Mark to = std::min(first.from + length % 32, kLastMark);
    const bool all = length >= 0xF0;
    std::uint64_t offset = 1;
    std::uint64_t size = 1;
    const bool found = tracker_.GetNextRange(
        offset, size, all ? WorkTracker::kNoLimit : ruler_.At(to) - ruler_.At(first.from));
    ORVANE_FUZZ_CHECK(found == first.found);
    Bits::Run taken;
    if (found) taken = model_.pending.Take(first.from, all ? first.to : to);
    ExpectTaken(taken, offset, size);
  }
  void Reserve() {
    Request request = TakeRequest(input_, ruler_);
    if (request.size == kTop) request.to = EndOfAll(request.from);
    std::uint64_t size = 1;
    const bool reserved = tracker_.Reserve(ruler_.At(request.from), size, request.size);
    Bits::Run taken;
    if (!model_.isFinished) taken = model_.pending.Take(request.from, request.to);
    ExpectTaken(taken, ruler_.At(taken.from), size);
    ORVANE_FUZZ_CHECK(reserved == (taken.to > taken.from));
  }
  // Where a request without limit ends: as many bytes behind its start as there are in all.
  Mark EndOfAll(Mark from) const {
    if (from == 0 || ruler_.At(model_.total) == kTop) return model_.total;
    return model_.total == 0 ? from : kBeyond;
  }
  void ExpectTaken(const Bits::Run& run, std::uint64_t offset, std::uint64_t size) {
    ORVANE_FUZZ_CHECK(offset == ruler_.At(run.from));
    ORVANE_FUZZ_CHECK(size == ruler_.At(run.to) - ruler_.At(run.from));
  }
  void Complete(WorkCode code) {
    const Request request = TakeRequest(input_, ruler_);
    tracker_.Complete(ruler_.At(request.from), request.size, code);
    model_.Complete(request, code);
  }
  void Peek(Mark from) {
    std::uint64_t offset = 1;
    std::uint64_t size = 1;
    const bool found = tracker_.PeekRange(ruler_.At(from), &offset, &size);
    Bits::Run run;
    if (!model_.isFinished) run = model_.pending.RunBehind(from);
    ORVANE_FUZZ_CHECK(found == run.found);
    if (found) run.from = std::max(run.from, from);
    ExpectTaken(run, offset, size);
  }
  void Borrow() {
    const std::uint32_t expected = input_->Below(4) == 0 ? generation_ + 1 : generation_;
    const bool borrowed = tracker_.Borrow(&generation_, expected);
    ORVANE_FUZZ_CHECK(borrowed == (!model_.isFinished && expected == generation_));
    if (borrowed) ++model_.borrows;
  }
  void Return() {
    if (model_.borrows == 0) return;
    tracker_.Return();
    model_.Return();
  }
  void Reset() {
    const Mark total = input_->Below(kLastMark + 1);
    if (input_->Flag()) {
      resetOnReport_ = resetOnReport_ ? std::nullopt : std::optional(total);
      return model_.ResetOnReport(resetOnReport_);
    }
    tracker_.Reset(ruler_.At(total));
    model_.Reset(total);
  }
  void ExpectSame() {
    ORVANE_FUZZ_CHECK(tracker_.GetReturnCount() == model_.returns);
    ORVANE_FUZZ_CHECK(tracker_.IsBorrowed() == (model_.borrows > 0));
    const bool hasPending = !model_.isFinished && !model_.pending.IsEmpty();
    ORVANE_FUZZ_CHECK(tracker_.HasRangesToComplete() == hasPending);
    if (model_.isFinished) return Peek(0);
    Mark from = 0;
    for (Bits::Run run{0, 0, true}; run.found; from = run.to) {
      Peek(from);
      run = model_.pending.RunBehind(from);
    }
  }

  Input* const input_;
  const Ruler ruler_;
  TrackerModel model_;
  WorkTracker tracker_;
  std::uint32_t generation_ = 7;
  unsigned reports_ = 0;
  std::optional<Mark> resetOnReport_;
};

}  // namespace
}  // namespace Orvane::Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace Orvane::Fuzz;
  const LeakCheck leaks;
  Input input(data, size);
  const unsigned kind = input.Byte();
  const Ruler ruler(kind >> 2);
  if ((kind & 3) == 0) {
    ListRun(&input, ruler).Run();
  } else {
    TrackerRun(&input, ruler).Run();
  }
  return 0;
}
