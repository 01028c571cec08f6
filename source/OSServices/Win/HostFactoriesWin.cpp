#include "OSServices/HostFactories.h"
#include "OSServicesHost.h"

namespace Orvane {

MTInterfaceImp* NewHostMTInterfaceImp() {
  return new MTInterfaceImpWin;
}

PhysMemInterfaceImp* NewHostPhysMemInterfaceImp() {
  return new PhysMemInterfaceImpWin;
}

NativeFileSysInterfaceImp* NewHostNativeFileSysInterfaceImp() {
  return new NativeFileSysInterfaceImpWin;
}

}  // namespace Orvane
