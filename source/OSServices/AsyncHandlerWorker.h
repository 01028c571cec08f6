#pragma once

#include "OSServices/AsyncHandler.h"
#include "OSServices/LibraryThread.h"

namespace Orvane {

// The body of the I/O thread.
class AsyncHandler::Worker : public MTThreadBody, public WaitServant {
 public:
  explicit Worker(AsyncHandler* handler) : handler_(handler) {}

  // While a callback waits for something that the caller of a cancel may hold.
  void ServeWhileWaiting() override { handler_->ServeCancelsWhileWaiting(); }

 protected:
  void TerminateBody() override {
    handler_->RaiseControl(kStop);
    handler_->WakeWorker(AsyncPort::Signal::kStop);
  }
  void ThreadMain(MTThread*) override { handler_->WorkerMain(); }

 private:
  AsyncHandler* const handler_;
};

}  // namespace Orvane
