#include "BlockFixture.h"

#include <algorithm>

#include "Cache/TransactionInternals.h"
#include "MTInterface.h"

namespace Orvane {

CacheTransaction* NewPreRead(CacheSource* source, std::uint64_t offset, std::uint64_t size,
                             std::uint32_t dueTime) {
  auto* const transaction = new CacheTransaction;
  EXPECT_TRUE(TransactionInternals::SetupForPreRead(transaction, source, offset, size, dueTime,
                                                    MTThread::kPriorityNormal));
  return transaction;
}

Buffer* OneBufferFactory::GetBufferFromFactory() {
  if (free_ == 0) return nullptr;
  --free_;
  ++lent_;
  return buffer_;
}

bool OneBufferFactory::ReturnBufferToFactory(Buffer* buffer) {
  if (buffer != buffer_ || lent_ == 0) return false;
  ++free_;
  --lent_;
  return true;
}

void BlockFixture::TearDown() {
  list_.reset();
  factory_.Release();
  CacheFixture::TearDown();
}

CacheBlockList* BlockFixture::MakeList(std::size_t blocks) {
  EXPECT_TRUE(factory_->Initialize(kBlock, blocks, blocks, 0));
  list_ = std::make_unique<CacheBlockList>(nullptr, factory_);
  EXPECT_EQ(blocks, list_->GetBlockCount());
  return list_.get();
}

CacheBlockList* BlockFixture::MakeLongList(std::size_t blocks) {
  AutoRelease<OneBufferFactory> factory(new OneBufferFactory(blocks));
  list_ = std::make_unique<CacheBlockList>(nullptr, factory);
  EXPECT_EQ(blocks, list_->GetBlockCount());
  return list_.get();
}

std::uint32_t BlockFixture::FromNow(std::int64_t ms) {
  return MTInterface::GetCurrentTimeMilli() + static_cast<std::uint32_t>(ms);
}

void BlockFixture::PutBytes(CacheBlock* block, const std::string& contents) {
  const std::uint64_t offset = block->GetSourceOffset();
  if (offset >= contents.size()) return;
  std::string bytes = contents.substr(offset, block->GetCapacity());
  std::size_t moved = 0;
  EXPECT_EQ(Buffer::kBufferOK, block->GetBuffer()->CopyInto(bytes.data(), bytes.size(), 0, &moved));
}

CacheBlock* BlockFixture::Fill(MemorySource* source, std::uint64_t offset, std::uint32_t dueTime) {
  const std::string contents = source->GetContents();
  Reader reader(source, offset, list_->GetBlockSize(), dueTime);
  CacheBlock* const block = list_->FindBlockToReadInto(reader);
  if (!block) return nullptr;
  PutBytes(block, contents);
  const std::uint64_t there = offset < contents.size() ? contents.size() - offset : 0;
  const std::uint64_t bytes = std::min(there, block->GetCapacity());
  block->CompleteReadInto(bytes, bytes == block->GetCapacity() ? CacheSource::kResultOK
                                 : bytes > 0                   ? CacheSource::kResultPartial
                                                               : CacheSource::kResultOutOfRange);
  block->ProcessPendingTransactions(nullptr);
  EXPECT_TRUE(reader.IsOver());
  EXPECT_EQ(0, block->GetLockCount());
  return block;
}

CacheBlock* BlockFixture::TakeOldest(MemorySource* source, std::uint64_t offset) {
  Reader reader(source, offset, list_->GetBlockSize());
  CacheBlock* const block = list_->FindBlockToReadInto(reader);
  if (block) block->CompleteReadInto(0, CacheSource::kResultFailed);
  return block;
}

CacheBlock* BlockFixture::Attach(CacheTransaction* reader, bool* alreadyServed) {
  bool served = false;
  std::uint64_t cursor = 0;
  return list_->FindBlockToCopyOutOf(reader, alreadyServed ? alreadyServed : &served, &cursor);
}

bool BlockFixture::IsHit(MemorySource* source, std::uint64_t offset, std::size_t size,
                         const std::string& expected) {
  Reader reader(source, offset, size);
  CacheBlock* const block = Attach(reader);
  if (!block) return false;
  block->ProcessPendingTransactions(nullptr);
  EXPECT_EQ(expected, reader.GetBytes(size));
  return true;
}

}  // namespace Orvane
