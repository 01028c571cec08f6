#include "OSServices.h"

#include "MTInterface.h"
#include "NativeFileSysInterface.h"
#include "OSServices/HostFactories.h"
#include "PhysMemInterface.h"

namespace Orvane {
namespace {

bool initialized = false;

}  // namespace

void OSServices::Init() {
  InitWithExtensions(nullptr, nullptr, nullptr);
}

void OSServices::InitWithExtensions(MTInterfaceImp* mt, PhysMemInterfaceImp* physMem,
                                    NativeFileSysInterfaceImp* fileSys) {
  if (initialized) throw "OSServices Already Initialized";
  MTInterface::InstallImplementation(mt ? mt : NewHostMTInterfaceImp());
  PhysMemInterface::InstallImplementation(physMem ? physMem : NewHostPhysMemInterfaceImp());
  NativeFileSysInterface::InstallImplementation(fileSys ? fileSys
                                                        : NewHostNativeFileSysInterfaceImp());
  initialized = true;
}

}  // namespace Orvane
