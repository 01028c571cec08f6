#include <cstdlib>

#include "OSServices/Sim/SimGate.h"
#include "OSServices/Win/HostHeadersWin.h"

namespace Orvane {
namespace {

// An event that closes itself behind who has passed.
class SimGateWin : public SimGate {
 public:
  SimGateWin() : open_(CreateEventA(nullptr, /*bManualReset=*/FALSE, FALSE, nullptr)) {
    if (!open_) std::abort();
  }
  ~SimGateWin() override { CloseHandle(open_); }
  SimGateWin(const SimGateWin&) = delete;
  SimGateWin& operator=(const SimGateWin&) = delete;

  void Give() override { SetEvent(open_); }
  void Take() override {
    if (WaitForSingleObject(open_, INFINITE) != WAIT_OBJECT_0) std::abort();
  }

 private:
  const HANDLE open_;
};

}  // namespace

std::unique_ptr<SimGate> NewSimGate() {
  return std::make_unique<SimGateWin>();
}

}  // namespace Orvane
