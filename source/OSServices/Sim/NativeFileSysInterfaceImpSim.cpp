#include <memory>

#include "OSServices/AsyncHandler.h"
#include "OSServices/NativeFileSourceAsync.h"
#include "OSServices/Sim/AsyncPortSim.h"
#include "OSServices/Sim/HostSim.h"
#include "OSServices/Sim/SimDevice.h"
#include "OSServices/Sim/SimWorld.h"

namespace Orvane {
namespace {

AsyncHandler* handler = nullptr;  // of the current world

class NativeFileSourceSim : public NativeFileSourceAsync {
 public:
  explicit NativeFileSourceSim(const char* name) : NativeFileSourceAsync(name, handler) {}

 protected:
  ~NativeFileSourceSim() override = default;

  HostFile* OpenHostFile(const char* name, bool forRead, bool forWrite, bool create) override {
    return new HostFileSim(Find(name, forRead || forWrite, create), forRead, forWrite);
  }

  bool DeleteHostFile(const char* name) override {
    SimWorld* const world = SimWorld::Current();
    const SimInside inside;
    world->Step(SimEvent::kFileDeleted, 0);
    return !world->DrawFault(world->Setup().faults.failOpen) && world->Device().Delete(name);
  }

 private:
  static std::shared_ptr<SimFile> Find(const char* name, bool usable, bool create) {
    SimWorld* const world = SimWorld::Current();
    const SimInside inside;
    world->Step(SimEvent::kFileOpened, 0);
    if (!usable || world->DrawFault(world->Setup().faults.failOpen)) return nullptr;
    SimDevice& device = world->Device();
    if (create && !device.Find(name)) device.Create(name, {});
    return device.Find(name);
  }
};

}  // namespace

NativeFileSource* NativeFileSysInterfaceImpSim::NewNativeFileSource(const char* name) {
  return new NativeFileSourceSim(name);
}

void NativeFileSysInterfaceImpSim::StartHandler() {
  handler = new AsyncHandler([](int attempt) -> std::unique_ptr<AsyncPort> {
    if (attempt != 0) return nullptr;
    return std::make_unique<AsyncPortSim>(SimWorld::Current());
  });
}

void NativeFileSysInterfaceImpSim::StopHandler() {
  delete handler;
  handler = nullptr;
}

void NativeFileSysInterfaceImpSim::ForgetHandler() {
  handler = nullptr;
}

AsyncHandler* NativeFileSysInterfaceImpSim::GetHandler() {
  return handler;
}

}  // namespace Orvane
