list(APPEND ORVANE_SOURCES
  FileAbstraction/FileSource.cpp
  FileAbstraction/ResultCallbackWrapper.cpp)
