// Commands that meet a transaction which has gone on without them, and those that find no memory.
#include "Cache/CacheCommands.h"

#include <memory>
#include <new>
#include <vector>

#include "AllocationCounter.h"
#include "CacheFixture.h"
#include "CacheTestTools.h"

namespace Orvane {
namespace {

class CacheCommandsTest : public CacheFixture {
 protected:
  void SetUp() override {
    CacheFixture::SetUp();
    MakeCache(4);
    source_ = MakeSource(MemorySource::Pattern(2 * kBlock));
    ASSERT_TRUE(Load());
    command_ = new ReadCommand(cache_, transaction_);
    // It ends before the command runs, and its owner reads on with it.
    transaction_->SetResult(CacheSource::kResultFailed);
    ASSERT_TRUE(Load());
  }
  void TearDown() override {
    transaction_.Release();
    status_.Release();
    target_.reset();
    CacheFixture::TearDown();
  }
  bool Load() {
    return transaction_->Setup(source_, 0, target_->GetList(), status_, CacheSource::kDueASAP,
                               MTThread::kPriorityNormal);
  }

  std::unique_ptr<Target> target_ = std::make_unique<Target>(kBlock);
  AutoRelease<StatusRecorder> status_{new StatusRecorder};
  AutoRelease<CacheTransaction> transaction_{new CacheTransaction};
  MemorySource* source_ = nullptr;
  ReadCommand* command_ = nullptr;
};

TEST_F(CacheCommandsTest, ACancelledOneLeavesTheNextUseOfItsTransactionAlone) {
  command_->Finish(/*cancelled=*/true);
  EXPECT_EQ(CacheSource::kResultPending, transaction_->GetResult(nullptr));
  EXPECT_EQ((std::vector<Report>{{CacheSource::kResultFailed, 0}}), status_->GetReports());
}

TEST_F(CacheCommandsTest, OneThatRunsTakesNothingFromTheNextUseOfItsTransaction) {
  EXPECT_TRUE(command_->Execute());
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  EXPECT_TRUE(transaction_->GetRangeToComplete(offset, size, 2 * kBlock));
  EXPECT_EQ(kBlock, size);
  command_->Finish(/*cancelled=*/false);
}

class CacheCommandsMemoryTest : public CacheFixture {};

TEST_F(CacheCommandsMemoryTest, AHitThatFindsNoMemoryLeavesItsBlockFree) {
  MakeCache(1);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  MemorySource* const other = MakeSource(MemorySource::Pattern(kBlock, 2));
  bool happened = true;
  for (std::size_t ordinal = 1; happened; ++ordinal) {
    SCOPED_TRACE(ordinal);
    ASSERT_EQ(source->GetContents(), Read(source, 0, kBlock));
    TransactionRequest request(kBlock);
    ASSERT_TRUE(request.Setup(source, 0));
    ReadCommand* const command = new ReadCommand(cache_, request.GetTransaction());
    bool threw = false;
    {
      const AllocationFailure failure(ordinal);
      try {
        command->Execute();
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      happened = failure.HasHappened();
    }
    command->Finish(/*cancelled=*/threw);
    EXPECT_EQ(threw ? CacheSource::kResultFailed : CacheSource::kResultOK,
              request.GetReport().result);
    AsyncRequest another(kBlock);
    ASSERT_EQ(CacheSource::kResultPending, another.Read(other, 0));
    ASSERT_EQ((Report{CacheSource::kResultOK, kBlock}), another.GetReport());
  }
}

}  // namespace
}  // namespace Orvane
