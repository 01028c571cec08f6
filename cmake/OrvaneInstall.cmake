# What `cmake --install` puts in place: the libraries, the simulated host for tests, the headers in
# one folder, the package files of CMake (find_package(Orvane)) and of pkg-config (orvane,
# orvane-static).
include(CMakePackageConfigHelpers)

set(ORVANE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Orvane)

# One export per library: who links the shared one needs none of the static one's dependencies.
set(kinds Static)
if(ORVANE_BUILD_SHARED)
  list(APPEND kinds Shared)
endif()
if(ORVANE_BUILD_SIMULATOR)
  list(APPEND kinds Simulator)
endif()
foreach(kind IN LISTS kinds)
  set(target Orvane${kind})
  if(kind STREQUAL "Static")
    set(target Orvane)
  endif()
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${kind})
  install(TARGETS ${target} EXPORT Orvane${kind}Targets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(EXPORT Orvane${kind}Targets NAMESPACE Orvane:: DESTINATION ${ORVANE_PACKAGE_DIR})
endforeach()

file(GLOB ORVANE_HEADERS CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/public_include/*.h
  ${PROJECT_SOURCE_DIR}/public_include/${ORVANE_HOST}/*.h)
if(NOT ORVANE_BUILD_SIMULATOR)
  list(FILTER ORVANE_HEADERS EXCLUDE REGEX "/OrvaneSimulator[A-Za-z]*\\.h$")
endif()
install(FILES ${ORVANE_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Orvane)

configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/OrvaneConfig.cmake.in ${PROJECT_BINARY_DIR}/OrvaneConfig.cmake
  INSTALL_DESTINATION ${ORVANE_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/OrvaneConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/OrvaneConfig.cmake
  ${PROJECT_BINARY_DIR}/OrvaneConfigVersion.cmake
  ${PROJECT_SOURCE_DIR}/cmake/OrvaneUtf8.cmake
  DESTINATION ${ORVANE_PACKAGE_DIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/cmake/utf8 DESTINATION ${ORVANE_PACKAGE_DIR})

# The prefix is found from where the file lies, so an installed tree can be moved.
file(RELATIVE_PATH ORVANE_PC_PREFIX
  "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" ORVANE_PC_PREFIX "${ORVANE_PC_PREFIX}")
set(ORVANE_PC_STATIC libOrvane.a)
if(MSVC)
  set(ORVANE_PC_STATIC OrvaneStatic.lib)
endif()
set(ORVANE_PC_REQUIRES)
set(ORVANE_PC_LIBS)
if(ORVANE_HOST STREQUAL "Linux")
  set(ORVANE_PC_REQUIRES liburing)
  set(ORVANE_PC_LIBS -pthread)
endif()
set(packages orvane-static)
if(ORVANE_BUILD_SHARED)
  list(APPEND packages orvane)
endif()
foreach(package IN LISTS packages)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${package}.pc.in
    ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
