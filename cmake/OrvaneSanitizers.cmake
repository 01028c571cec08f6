# Applied to everything, the test framework included, so that one run-time is in play.
if(ORVANE_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(ORVANE_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(ORVANE_SANITIZE)
  message(FATAL_ERROR "ORVANE_SANITIZE is '${ORVANE_SANITIZE}', not address, thread or empty")
endif()

# Coverage for the fuzzer, which only the fuzz targets are linked with.
if(ORVANE_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "ORVANE_BUILD_FUZZERS takes clang, not ${CMAKE_CXX_COMPILER_ID}")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link -ffunction-sections -fdata-sections)
  # Without a sanitizer it is speed that counts: calls for comparisons cost half of it.
  if(NOT ORVANE_SANITIZE)
    add_compile_options(-fno-sanitize-coverage=trace-cmp,indirect-calls)
  endif()
endif()
