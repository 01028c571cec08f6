find_package(PkgConfig REQUIRED)
pkg_check_modules(liburing REQUIRED IMPORTED_TARGET liburing)
pkg_check_modules(libuv REQUIRED IMPORTED_TARGET libuv)
find_package(RocksDB REQUIRED)

set(ORVANE_BENCH_HOST_SOURCES
  Linux/AsioPeer.cpp
  Linux/BenchHost.cpp
  Linux/ItemMemory.cpp
  Linux/LibuvPeer.cpp
  Linux/MappingPeer.cpp
  Linux/PeerFile.cpp
  Linux/Peers.cpp
  Linux/PreadPeer.cpp
  Linux/RingPeer.cpp
  Linux/RocksCachePeer.cpp)
# A sanitizer has a malloc of its own.
if(NOT ORVANE_SANITIZE)
  list(APPEND ORVANE_BENCH_HOST_SOURCES Linux/Malloc.cpp)
  set(ORVANE_BENCH_COUNTS_MALLOC ON)
endif()
set(ORVANE_BENCH_HOST_LIBRARIES PkgConfig::liburing PkgConfig::libuv RocksDB::rocksdb-shared)
