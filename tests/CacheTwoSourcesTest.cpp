// What is done to one source, or inside its reports, does not get into the way of another.
#include "Cache/CacheBlock.h"
#include "Cache/CacheCommands.h"
#include "CacheFixture.h"

namespace Orvane {
namespace {

class CacheTwoSourcesTest : public CacheFixture {};

TEST_F(CacheTwoSourcesTest, AStaleCopyThatIsCancelledLeavesTheNewOwnerOfItsBlockAlone) {
  MemorySource* const before = MakeSource(MemorySource::Pattern(kBlock));
  MemorySource* const after = MakeSource(MemorySource::Pattern(kBlock, 2));
  Target served(kBlock);
  Target waiting(kBlock);
  const AutoRelease<Buffer> buffer(new HeapBuffer(kBlock));
  BlockGroup group(nullptr, nullptr);
  CacheBlock block(&group, buffer);
  const AutoRelease<CacheTransaction> first(
      new CacheTransaction(before, 0, served.GetList(), nullptr, CacheSource::kDueASAP));
  const AutoRelease<CacheTransaction> second(
      new CacheTransaction(after, 0, waiting.GetList(), nullptr, CacheSource::kDueASAP));
  ASSERT_TRUE(block.LockForReadInto(first));
  auto* const stale = new DispatchedCopyCommand(CacheSource::kDueASAP, nullptr, before, &block);
  ASSERT_TRUE(block.CompleteReadInto(kBlock, CacheSource::kResultOK));
  block.ProcessPendingTransactions(nullptr);
  ASSERT_EQ(CacheSource::kResultOK, first->GetResult(nullptr));
  ASSERT_TRUE(block.LockForReadInto(second));

  // One may even be made when the block has changed hands already.
  auto* const late = new DispatchedCopyCommand(CacheSource::kDueASAP, nullptr, before, &block);
  stale->Finish(/*cancelled=*/true);
  late->Finish(/*cancelled=*/true);
  EXPECT_EQ(CacheSource::kResultPending, second->GetResult(nullptr));
  ASSERT_TRUE(block.CompleteReadInto(kBlock, CacheSource::kResultOK));
  block.ProcessPendingTransactions(nullptr);
  EXPECT_EQ(CacheSource::kResultOK, second->GetResult(nullptr));
}

// Enters the sections of the other cache.
class CancelsAnother : public ReportRecorder {
 public:
  explicit CancelsAnother(FileSource* other) : other_(other) {}
  void Callback(CacheSource::Result_t result, std::uint64_t offset, BufferList* list,
                std::uint64_t bytes) override {
    other_->Cancel();
    ReportRecorder::Callback(result, offset, list, bytes);
  }

 protected:
  ~CancelsAnother() override = default;

 private:
  FileSource* const other_;
};

TEST_F(CacheTwoSourcesTest, TheReportOfACancelledWriteMayCancelOnAnotherCache) {
  MakeCache(2);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  MakeCache(2);
  MemorySource* const other = MakeSource(MemorySource::Pattern(kBlock));
  Target target(kBlock);
  const AutoRelease<CancelsAnother> callback(new CancelsAnother(other));
  source->HoldRequests(true);
  ASSERT_EQ(CacheSource::kResultPending,
            source->WriteAsyncWithList(0, target.GetList(), callback, CacheSource::kDueASAP));
  source->Cancel();
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), callback->GetOne());
  EXPECT_EQ(1u, other->GetCancelCount());
}

}  // namespace
}  // namespace Orvane
