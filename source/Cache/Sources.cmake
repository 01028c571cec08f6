list(APPEND ORVANE_SOURCES
  Cache/Cache.cpp
  Cache/CacheSource.cpp)
