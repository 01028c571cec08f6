list(APPEND ORVANE_SOURCES
  OSServices/Linux/AsyncPortThreadsLinux.cpp
  OSServices/Linux/AsyncPortUringLinux.cpp
  OSServices/Linux/HostFactoriesLinux.cpp
  OSServices/Linux/HostFileLinux.cpp
  OSServices/Linux/HostResultLinux.cpp
  OSServices/Linux/MTInterfaceImpLinux.cpp
  OSServices/Linux/MTPrimitivesLinux.cpp
  OSServices/Linux/MTThreadLinux.cpp
  OSServices/Linux/NativeFileSourceLinux.cpp
  OSServices/Linux/NativeFileSysInterfaceImpLinux.cpp
  OSServices/Linux/PhysMemInterfaceImpLinux.cpp)
list(APPEND ORVANE_SIMULATOR_SOURCES
  OSServices/Linux/SimFiberLinux.cpp
  OSServices/Linux/SimGateLinux.cpp
  OSServices/Linux/SimSpaceLinux.cpp)
find_package(PkgConfig REQUIRED)
pkg_check_modules(liburing REQUIRED IMPORTED_TARGET liburing)
find_package(Threads REQUIRED)
set(ORVANE_HOST_LIBRARIES PkgConfig::liburing Threads::Threads)
