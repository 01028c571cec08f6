# The warnings of the project's own code; not part of what the exported targets require.
add_library(OrvaneWarnings INTERFACE)
if(MSVC)
  # Classes of the standard library as members of exported ones are no mistake: who uses the DLL is
  # built with the same compiler.
  target_compile_options(OrvaneWarnings INTERFACE
    /W4 /permissive- /utf-8 /wd4251 /wd4275
    $<$<BOOL:${ORVANE_WARNINGS_AS_ERRORS}>:/WX>)
else()
  target_compile_options(OrvaneWarnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
    -Woverloaded-virtual -Wconversion -Wsign-conversion -Wformat=2
    $<$<BOOL:${ORVANE_WARNINGS_AS_ERRORS}>:-Werror>
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
endif()
