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
set(ORVANE_BENCH_HOST_LIBRARIES PkgConfig::liburing PkgConfig::libuv RocksDB::rocksdb-shared)
