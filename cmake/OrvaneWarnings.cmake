# The warnings of the project's own code; not part of what the exported targets require.
add_library(OrvaneWarnings INTERFACE)
target_compile_options(OrvaneWarnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
  -Woverloaded-virtual -Wconversion -Wsign-conversion -Wformat=2
  $<$<BOOL:${ORVANE_WARNINGS_AS_ERRORS}>:-Werror>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
