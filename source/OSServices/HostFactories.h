// The one seam to the host: each host folder defines these.
#pragma once

namespace Orvane {

class MTInterfaceImp;
class NativeFileSysInterfaceImp;
class PhysMemInterfaceImp;

MTInterfaceImp* NewHostMTInterfaceImp();
PhysMemInterfaceImp* NewHostPhysMemInterfaceImp();
NativeFileSysInterfaceImp* NewHostNativeFileSysInterfaceImp();

}  // namespace Orvane
