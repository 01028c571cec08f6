list(APPEND ORVANE_SOURCES
  CoreClasses/Buffer.cpp
  CoreClasses/BufferArray.cpp
  CoreClasses/BufferFactory.cpp
  CoreClasses/BufferList.cpp
  CoreClasses/ObjectSequence.cpp
  CoreClasses/PointerIndex.cpp
  CoreClasses/RankTree.cpp
  CoreClasses/SharedObject.cpp
  CoreClasses/SharedObjectList.cpp
  CoreClasses/SharedObjectPool.cpp
  CoreClasses/SortedObjectList.cpp)
