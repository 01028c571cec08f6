#include "Block.h"

#include <cstring>
#include <utility>

#include "PhysMemInterface.h"

namespace OrvaneTool {

using Orvane::CacheSource;

void CompletionQueue::Push(Block* block) {
  const std::lock_guard hold(lock_);
  blocks_.push_back(block);
  filled_.notify_one();
}

Block* CompletionQueue::Pop(std::chrono::milliseconds timeout) {
  std::unique_lock hold(lock_);
  if (!filled_.wait_for(hold, timeout, [this] { return !blocks_.empty(); })) return nullptr;
  Block* const block = blocks_.front();
  blocks_.pop_front();
  return block;
}

Block::Block(Ref<Orvane::Buffer> buffer, std::shared_ptr<CompletionQueue> queue)
    : buffer_(std::move(buffer)), queue_(std::move(queue)) {
  buffer_->Lock();
}

Block::~Block() {
  buffer_->Unlock();
}

std::uint64_t Block::PagedBytes() const {
  const std::uint64_t page = Orvane::PhysMemInterface::GetPageSize();
  return (bytes + page - 1) / page * page;
}

Ref<Orvane::BufferList> Block::NewList(std::uint64_t wanted) {
  if (wanted == buffer_->GetSize()) {
    return Ref(new Orvane::BufferList(buffer_.get(), /*adoptReference=*/false, 1));
  }
  auto* const part = new Orvane::BufferPartOfBuffer(data(), wanted, buffer_.get());
  return Ref(new Orvane::BufferList(part, /*adoptReference=*/true, 1));
}

CacheSource::Result_t Block::Read(Orvane::FileSource& file) {
  const Ref<Orvane::BufferList> list = NewList(file.GetCache() != nullptr ? bytes : PagedBytes());
  return file.ReadAsyncWithList(offset, list.get(), this, CacheSource::kDueASAP);
}

CacheSource::Result_t Block::Write(Orvane::FileSource& file) {
  const Ref<Orvane::BufferList> list = NewList(PagedBytes());
  const std::size_t padding = list->GetTotalSizeOfBuffers() - bytes;
  std::memset(static_cast<unsigned char*>(data()) + bytes, 0, padding);
  return file.WriteAsyncWithList(offset, list.get(), this, CacheSource::kDueASAP);
}

void Block::Callback(CacheSource::Result_t outcome, std::uint64_t, Orvane::BufferList*,
                     std::uint64_t transferred) {
  result = outcome;
  moved = transferred;
  queue_->Push(this);
}

}  // namespace OrvaneTool
