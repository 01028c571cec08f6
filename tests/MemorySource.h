// A file source whose file is in memory and whose reads and writes end when the test says so.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "BufferList.h"
#include "FileSource.h"

namespace Orvane {

// Every operation of a request that was started is noted. By default a request ends inside the call
// that starts it, with what a file of these contents would answer; held ones wait for Complete.
// Safe from any thread.
class MemorySource : public FileSource {
 public:
  // One request for the file.
  struct Request {
    bool isWrite;
    std::uint64_t offset;
    std::uint64_t size;
    std::uint32_t dueTime;

    bool operator==(const Request&) const = default;
  };

  explicit MemorySource(std::string contents);

  // Byte k of Pattern(size) is told from its neighbours, and from byte k of other files.
  static std::string Pattern(std::size_t size, unsigned seed = 1);

  // From now on requests are held until they are completed.
  void HoldRequests(bool hold);
  // Waits up to 5 seconds for that many held requests; false if they do not come.
  bool WaitForHeld(std::size_t count);
  std::size_t GetHeldCount();
  // Ends the held request at `index` on the calling thread, as the file would.
  void Complete(std::size_t index = 0);
  // Ends it with a result and a count; the first `bytes` bytes of a read are transferred.
  void CompleteWith(std::size_t index, Result_t result, std::uint64_t bytes);
  void CompleteAll();

  // What the next starts answer instead of starting, in order.
  void AnswerNext(Result_t result, std::size_t times = 1);
  // What is left of that is forgotten.
  void AnswerAsUsual();
  // What requests that are not held end with: result and bytes. kResultNone: as the file would.
  void EndAllWith(Result_t result, std::uint64_t bytes = 0);
  // Called, on the thread of the start, before each request begins.
  void OnStart(std::function<void(const Request&)> hook);

  void SetGathers(bool gathers) { gathers_ = gathers; }
  void SetSupportsPreReads(bool supports) { supportsPreReads_ = supports; }
  // Whether Cancel ends held requests with kResultFailed (it does at first), or leaves them.
  void SetObeysCancel(bool obeys) { obeysCancel_ = obeys; }

  std::vector<Request> GetRequests();
  std::vector<Request> GetPreReads();
  std::size_t GetCancelCount();
  void ClearRequests();
  std::string GetContents();
  void SetContents(std::string contents);

  bool CanGatherReads() override { return gathers_; }
  bool SupportsPreReads() override { return supportsPreReads_; }
  void PreReadNonCached(std::uint64_t offset, std::uint64_t size, std::uint32_t dueTime,
                        MTThread::MTPriority priority) override;
  Result_t ReadAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                      ResultCallbackBufferList* callback,
                                      std::uint32_t dueTime) override;
  Result_t WriteAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                       ResultCallbackBufferList* callback,
                                       std::uint32_t dueTime) override;
  void CancelNonCached() override;

 protected:
  ~MemorySource() override = default;

 private:
  struct Held {
    Request request;
    BufferList* list;                    // one reference
    ResultCallbackBufferList* callback;  // one reference, or null
  };

  Result_t Start(const Request& request, BufferList* list, ResultCallbackBufferList* callback);
  void End(const Held& held, const Result_t* result, std::uint64_t bytes);
  std::uint64_t Transfer(const Held& held, std::uint64_t bytes);

  std::mutex mutex_;
  std::condition_variable heldChanged_;
  std::string contents_;
  bool holds_ = false;
  std::deque<Held> held_;
  std::deque<Result_t> answers_;
  Result_t endWith_ = kResultNone;
  std::uint64_t endBytes_ = 0;
  std::function<void(const Request&)> onStart_;
  std::vector<Request> requests_;
  std::vector<Request> preReads_;
  std::size_t cancels_ = 0;
  bool gathers_ = true;
  bool supportsPreReads_ = false;
  bool obeysCancel_ = true;
};

}  // namespace Orvane
