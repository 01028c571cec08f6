# File names are in the code page of the process. With this a program for Windows has UTF-8 as its
# code page, from Windows 10 version 1903 on; elsewhere it changes nothing.
function(orvane_use_utf8 target)
  if(MSVC)
    target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/utf8/utf8.manifest)
  elseif(WIN32)
    target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/utf8/utf8.rc)
  endif()
endfunction()
