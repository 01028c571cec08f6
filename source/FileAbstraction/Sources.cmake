list(APPEND ORVANE_SOURCES
  FileAbstraction/FileSource.cpp
  FileAbstraction/ResidentReadCommand.cpp
  FileAbstraction/ResultBufferListWrapper.cpp
  FileAbstraction/ResultCallbackWrapper.cpp
  FileAbstraction/TransactionWrapper.cpp
  FileAbstraction/WriteCallbackWrapper.cpp)
