#include "OSServices/HostFactories.h"
#include "OSServicesHost.h"

namespace Orvane {

MTInterfaceImp* NewHostMTInterfaceImp() {
  return new MTInterfaceImpLinux;
}

PhysMemInterfaceImp* NewHostPhysMemInterfaceImp() {
  return new PhysMemInterfaceImpLinux;
}

NativeFileSysInterfaceImp* NewHostNativeFileSysInterfaceImp() {
  return new NativeFileSysInterfaceImpLinux;
}

}  // namespace Orvane
