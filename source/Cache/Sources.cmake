list(APPEND ORVANE_SOURCES
  Cache/Cache.cpp
  Cache/CacheSource.cpp
  Cache/CacheTransaction.cpp
  Cache/CacheTransactionWorkResultCallback.cpp
  Cache/RangeList.cpp
  Cache/TransactionInternals.cpp
  Cache/WorkTracker.cpp)
