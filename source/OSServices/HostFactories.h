// The one seam to the host: each host folder defines these.
#pragma once

#include <typeinfo>

namespace Orvane {

class MTInterfaceImp;
class NativeFileSysInterfaceImp;
class PhysMemInterfaceImp;

MTInterfaceImp* NewHostMTInterfaceImp();
PhysMemInterfaceImp* NewHostPhysMemInterfaceImp();
NativeFileSysInterfaceImp* NewHostNativeFileSysInterfaceImp();

// Of the buffers that the host's PhysMemInterfaceImp makes.
const std::type_info& GetHostPhysMemBufferType();

}  // namespace Orvane
