// One request of the cache's stress test.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "CacheStressModel.h"
#include "StressTools.h"

namespace Orvane {

// What the test does and what comes of it; each must have happened in the end.
// clang-format off
#define ORVANE_STRESS_KINDS(KIND) \
  KIND(SyncBufferRead) KIND(SyncListRead) KIND(AsyncBufferRead) KIND(AsyncListRead) \
  KIND(Write) KIND(WriteAndReadBack) KIND(Append) KIND(PreRead) KIND(Invalidate) \
  KIND(Purge) KIND(Cancel) KIND(CloseAndOpen) KIND(Statistics) KIND(NewSource) \
  KIND(NewCache) KIND(OwnTransactions) KIND(ReadInCallback) KIND(PreReadInCallback) \
  KIND(InvalidateInCallback) KIND(PurgeInCallback) KIND(CancelInCallback) \
  KIND(CloseInCallback) KIND(ReleaseSourceInCallback) KIND(ReleaseCacheInCallback) \
  KIND(SyncReadInCallback) KIND(Throw) KIND(ReportedOK) KIND(ReportedPartial) \
  KIND(ReportedOutOfRange) KIND(ReportedFailed) KIND(Refused) KIND(Hit) \
  KIND(CacheOrphans)
// clang-format on

enum class StressKind : std::uint8_t {
#define ORVANE_STRESS_KIND(name) k##name,
  ORVANE_STRESS_KINDS(ORVANE_STRESS_KIND)
#undef ORVANE_STRESS_KIND
      kCount,
};

class StressCounts {
 public:
  static const char* NameOf(StressKind kind);
  void Add(StressKind kind) { ++counts_[static_cast<std::size_t>(kind)]; }
  std::uint64_t Get(StressKind kind) const { return counts_[static_cast<std::size_t>(kind)]; }
  bool HasAll() const {
    return std::all_of(counts_.begin(), counts_.end(),
                       [](const auto& count) { return count != 0; });
  }
  // Requests that were refused or reported.
  std::uint64_t GetOperations() const;
  void AddComparedBytes(std::uint64_t bytes) { comparedBytes_ += bytes; }
  std::uint64_t GetComparedBytes() const { return comparedBytes_; }

 private:
  std::array<std::atomic<std::uint64_t>, static_cast<std::size_t>(StressKind::kCount)> counts_{};
  std::atomic<std::uint64_t> comparedBytes_{0};
};

// What went wrong, of all threads: how often, and the first of each in words.
class StressFindings {
 public:
  void Add(const std::string& text);
  std::uint64_t Count() const { return count_; }
  std::string Texts();

 private:
  std::atomic<std::uint64_t> count_{0};
  std::mutex mutex_;
  std::vector<std::string> texts_;
};

// The memory of one request: pieces with something between them that nobody may touch.
class StressMemory {
 public:
  // What becomes of it when the request has been reported.
  enum class Afterwards : std::uint8_t { kPoison, kUnmap, kFree };

  // `whole`: pieces are whole pages.
  StressMemory(StressRandom* random, std::size_t size, bool whole, bool onePiece);
  ~StressMemory();
  StressMemory(const StressMemory&) = delete;
  StressMemory& operator=(const StressMemory&) = delete;

  const Pieces& GetPieces() const { return pieces_; }
  std::vector<unsigned char> Gather(std::size_t size) const;
  void Scatter(const std::vector<unsigned char>& data) const;
  bool GapsAreIntact() const;
  void LetGo();
  // After LetGo: whether nobody wrote to it.
  bool IsUntouched() const;

 private:
  void MakePieces(StressRandom* random, std::size_t size, bool whole, bool onePiece);

  const Afterwards afterwards_;
  std::unique_ptr<Memory> mapped_;
  std::vector<unsigned char*> allocated_;
  std::align_val_t alignment_{1};  // of those
  Pieces pieces_;
};

// What is done inside a report, chosen by the request's own random numbers.
class StressReactions {
 public:
  virtual ~StressReactions() = default;
  virtual void React(StressRandom* random) = 0;
};

// A read or write of one source, from its start to its report. Shared by its starter and its
// callback object, which dies when it likes.
class StressRequest : public std::enable_shared_from_this<StressRequest> {
 public:
  struct Plan {
    bool isWrite;
    bool asList;
    std::uint64_t offset;
    std::size_t size;
    std::uint64_t seed;
  };
  struct World {
    StressCounts* counts;
    StressFindings* findings;
    StressReactions* reactions;
  };

  StressRequest(const World& world, std::shared_ptr<StressSource> source, const Plan& plan);

  // Of a source that the caller holds. False if it was refused; then it is finished.
  bool Start();
  // The same, waiting for it; true for kResultOK.
  bool Run();
  void Report(CacheSource::Result_t result, std::uint64_t offset, std::uint64_t bytes);
  bool IsFinished() const { return finished_; }
  bool IsList() const { return plan_.asList; }
  // A read of what this one has written and more, through the same source.
  std::shared_ptr<StressRequest> NewReadBack(std::uint64_t seed) const;
  // After it has finished, as late as possible.
  void CheckAfterwards();
  std::string ToString() const;

 private:
  CacheSource::Result_t StartWithList();
  CacheSource::Result_t StartWithBuffer();
  std::uint32_t PickDueTime();
  void Prepare();
  void CheckOutcome(CacheSource::Result_t result, std::uint64_t bytes);
  void CheckRefusal(CacheSource::Result_t result);
  void CheckData(std::uint64_t bytes);
  void EndWrite(bool good);
  void Find(const std::string& what, int result, std::uint64_t bytes);
  std::size_t FirstPage() const { return static_cast<std::size_t>(plan_.offset / Page()); }
  std::size_t PageCount() const { return plan_.size / Page(); }

  const World world_;
  const std::shared_ptr<StressSource> source_;
  const Plan plan_;
  StressRandom random_;
  StressMemory memory_;
  StressSource::Start start_;
  std::uint64_t version_ = 0;
  std::atomic<int> reports_{0};
  std::atomic<bool> finished_{false};
};

}  // namespace Orvane
