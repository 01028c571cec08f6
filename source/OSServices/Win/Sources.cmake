list(APPEND ORVANE_SOURCES
  OSServices/Win/AsyncPortWin.cpp
  OSServices/Win/HostFactoriesWin.cpp
  OSServices/Win/HostFileWin.cpp
  OSServices/Win/HostResultWin.cpp
  OSServices/Win/MTInterfaceImpWin.cpp
  OSServices/Win/MTPrimitivesWin.cpp
  OSServices/Win/MTThreadWin.cpp
  OSServices/Win/NativeFileSourceWin.cpp
  OSServices/Win/NativeFileSysInterfaceImpWin.cpp
  OSServices/Win/PhysMemInterfaceImpWin.cpp)
list(APPEND ORVANE_SIMULATOR_SOURCES
  OSServices/Win/SimFiberWin.cpp
  OSServices/Win/SimGateWin.cpp
  OSServices/Win/SimSpaceWin.cpp)
set(ORVANE_HOST_LIBRARIES)
