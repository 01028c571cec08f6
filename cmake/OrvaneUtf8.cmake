# File names are in the code page of the process. With this a program for Windows has UTF-8 as its
# code page, from Windows 10 version 1903 on; elsewhere it changes nothing. Installed with the package.
function(orvane_use_utf8 target)
  set(folder ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/utf8)
  if(MSVC)
    target_sources(${target} PRIVATE ${folder}/utf8.manifest)
  elseif(WIN32)
    target_sources(${target} PRIVATE ${folder}/utf8.rc)
  endif()
endfunction()
