list(APPEND ORVANE_SIMULATOR_SOURCES
  OSServices/Sim/AsyncPortSim.cpp
  OSServices/Sim/MTInterfaceImpSim.cpp
  OSServices/Sim/MTPrimitivesSim.cpp
  OSServices/Sim/NativeFileSysInterfaceImpSim.cpp
  OSServices/Sim/PhysMemInterfaceImpSim.cpp
  OSServices/Sim/SimArena.cpp
  OSServices/Sim/SimDevice.cpp
  OSServices/Sim/SimFiberCarrier.cpp
  OSServices/Sim/SimLockOrder.cpp
  OSServices/Sim/SimPolicy.cpp
  OSServices/Sim/SimThreadCarrier.cpp
  OSServices/Sim/SimTrace.cpp
  OSServices/Sim/SimWorld.cpp
  OSServices/Sim/Simulator.cpp)
