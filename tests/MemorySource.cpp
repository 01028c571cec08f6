#include "MemorySource.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "Buffer.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "tests/MemorySource";
constexpr std::chrono::seconds kPatience{5};

}  // namespace

MemorySource::MemorySource(std::string contents) : contents_(std::move(contents)) {}

std::string MemorySource::Pattern(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (std::size_t k = 0; k < size; ++k) {
    bytes[k] = static_cast<char>((k * 31 + (k >> 8) * 7 + (k >> 16) * 13 + seed * 101) & 0xFF);
  }
  return bytes;
}

void MemorySource::HoldRequests(bool hold) {
  std::lock_guard lock(mutex_);
  holds_ = hold;
}

bool MemorySource::WaitForHeld(std::size_t count) {
  std::unique_lock lock(mutex_);
  return heldChanged_.wait_for(lock, kPatience, [&] { return held_.size() >= count; });
}

std::size_t MemorySource::GetHeldCount() {
  std::lock_guard lock(mutex_);
  return held_.size();
}

void MemorySource::Complete(std::size_t index) {
  Held held{};
  {
    std::lock_guard lock(mutex_);
    held = held_.at(index);
    held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(index));
  }
  End(held, nullptr, 0);
}

void MemorySource::CompleteWith(std::size_t index, Result_t result, std::uint64_t bytes) {
  Held held{};
  {
    std::lock_guard lock(mutex_);
    held = held_.at(index);
    held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(index));
  }
  End(held, &result, bytes);
}

void MemorySource::CompleteAll() {
  while (GetHeldCount() > 0) Complete(0);
}

void MemorySource::AnswerNext(Result_t result, std::size_t times) {
  std::lock_guard lock(mutex_);
  answers_.insert(answers_.end(), times, result);
}

void MemorySource::AnswerAsUsual() {
  std::lock_guard lock(mutex_);
  answers_.clear();
}

void MemorySource::EndAllWith(Result_t result, std::uint64_t bytes) {
  std::lock_guard lock(mutex_);
  endWith_ = result;
  endBytes_ = bytes;
}

void MemorySource::OnStart(std::function<void(const Request&)> hook) {
  std::lock_guard lock(mutex_);
  onStart_ = std::move(hook);
}

std::vector<MemorySource::Request> MemorySource::GetRequests() {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::vector<MemorySource::Request> MemorySource::GetPreReads() {
  std::lock_guard lock(mutex_);
  return preReads_;
}

std::size_t MemorySource::GetCancelCount() {
  std::lock_guard lock(mutex_);
  return cancels_;
}

void MemorySource::ClearRequests() {
  std::lock_guard lock(mutex_);
  requests_.clear();
  preReads_.clear();
}

std::string MemorySource::GetContents() {
  std::lock_guard lock(mutex_);
  return contents_;
}

void MemorySource::SetContents(std::string contents) {
  std::lock_guard lock(mutex_);
  contents_ = std::move(contents);
}

void MemorySource::PreReadNonCached(std::uint64_t offset, std::uint64_t size, std::uint32_t dueTime,
                                    MTThread::MTPriority) {
  std::lock_guard lock(mutex_);
  preReads_.push_back({false, offset, size, dueTime});
}

FileSource::Result_t MemorySource::ReadAsyncWithListNonCached(std::uint64_t offset,
                                                              BufferList* list,
                                                              ResultCallbackBufferList* callback,
                                                              std::uint32_t dueTime) {
  return Start({false, offset, list->GetTotalSizeOfBuffers(), dueTime}, list, callback);
}

FileSource::Result_t MemorySource::WriteAsyncWithListNonCached(std::uint64_t offset,
                                                               BufferList* list,
                                                               ResultCallbackBufferList* callback,
                                                               std::uint32_t dueTime) {
  return Start({true, offset, list->GetTotalSizeOfBuffers(), dueTime}, list, callback);
}

void MemorySource::CancelNonCached() {
  std::deque<Held> cancelled;
  {
    std::lock_guard lock(mutex_);
    ++cancels_;
    if (obeysCancel_) cancelled.swap(held_);
  }
  const Result_t failed = kResultFailed;
  for (const Held& held : cancelled) End(held, &failed, 0);
}

FileSource::Result_t MemorySource::Start(const Request& request, BufferList* list,
                                         ResultCallbackBufferList* callback) {
  std::function<void(const Request&)> hook;
  {
    std::lock_guard lock(mutex_);
    hook = onStart_;
  }
  if (hook) hook(request);
  Held held{request, list, callback};
  bool usesFile = true;
  Result_t result = kResultNone;
  std::uint64_t bytes = 0;
  {
    std::lock_guard lock(mutex_);
    if (!answers_.empty()) {
      const Result_t answer = answers_.front();
      answers_.pop_front();
      return answer;
    }
    requests_.push_back(request);
    list->AddRef(kFile, "Orvane::MemorySource::Start", __LINE__);
    if (callback) callback->AddRef(kFile, "Orvane::MemorySource::Start", __LINE__);
    if (holds_) {
      held_.push_back(held);
      heldChanged_.notify_all();
      return kResultPending;
    }
    usesFile = endWith_ == kResultNone;
    result = endWith_;
    bytes = endBytes_;
  }
  End(held, usesFile ? nullptr : &result, bytes);
  return kResultPending;
}

// Null: as the file would.
void MemorySource::End(const Held& held, const Result_t* result, std::uint64_t bytes) {
  Result_t ended = kResultOK;
  if (result) {
    ended = *result;
    Transfer(held, bytes);
  } else {
    bytes = Transfer(held, held.request.size);
    if (bytes < held.request.size) ended = bytes > 0 ? kResultPartial : kResultOutOfRange;
  }
  if (held.callback) held.callback->Callback(ended, held.request.offset, held.list, bytes);
  held.list->DecRef(kFile, "Orvane::MemorySource::End", __LINE__);
  if (held.callback) held.callback->DecRef(kFile, "Orvane::MemorySource::End", __LINE__);
}

std::uint64_t MemorySource::Transfer(const Held& held, std::uint64_t bytes) {
  std::lock_guard lock(mutex_);
  const std::uint64_t offset = held.request.offset;
  if (held.request.isWrite && contents_.size() < offset + bytes) contents_.resize(offset + bytes);
  const std::uint64_t there = offset < contents_.size() ? contents_.size() - offset : 0;
  const std::uint64_t count = std::min(bytes, there);
  std::uint64_t done = 0;
  while (done < count) {
    std::size_t at = 0;
    std::size_t left = 0;
    Buffer* const buffer = held.list->GetBufferAtOffset(done, &at, &left);
    const std::size_t part = std::min<std::size_t>(left, count - done);
    std::size_t moved = 0;
    if (held.request.isWrite) {
      buffer->CopyOutOf(contents_.data() + offset + done, part, at, &moved);
    } else {
      buffer->CopyInto(contents_.data() + offset + done, part, at, &moved);
    }
    if (moved == 0) break;
    done += moved;
  }
  return done;
}

}  // namespace Orvane
