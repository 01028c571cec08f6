list(APPEND ORVANE_SOURCES
  OSServices/AsyncHandler.cpp
  OSServices/AsyncHandlerWorker.cpp
  OSServices/LockClass.cpp
  OSServices/MTInterface.cpp
  OSServices/MTPrimitives.cpp
  OSServices/MTThread.cpp
  OSServices/NativeFileSource.cpp
  OSServices/NativeFileSourceAsync.cpp
  OSServices/NativeFileSysInterface.cpp
  OSServices/OSServices.cpp
  OSServices/PhysMemInterface.cpp
  OSServices/PlainBuffer.cpp
  OSServices/ReportScope.cpp
  OSServices/ScatterGatherManager.cpp)
