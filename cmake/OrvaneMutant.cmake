# Mutants: the library with one of its safeguards left out, built to show that the tests would
# notice. -DORVANE_MUTANT=NAME applies tests/mutants/NAME.patch to a copy of the sources in the build
# folder and builds that copy; NAME "none" builds the copy as it is. Sets the folders that the
# library is built from: ORVANE_SOURCE_DIR and ORVANE_INCLUDE_DIR.
set(ORVANE_MUTANT "" CACHE STRING "Safeguard to leave out, a name from tests/mutants; for tests only")

set(ORVANE_SOURCE_DIR ${PROJECT_SOURCE_DIR}/source)
set(ORVANE_INCLUDE_DIR ${PROJECT_SOURCE_DIR}/public_include)
if(NOT ORVANE_MUTANT)
  return()
endif()
if(NOT ORVANE_BUILD_TESTS)
  message(FATAL_ERROR "ORVANE_MUTANT is for tests: it needs ORVANE_BUILD_TESTS")
endif()

set(mutant_dir ${PROJECT_BINARY_DIR}/mutant)
set(fresh_dir ${mutant_dir}/fresh)
file(REMOVE_RECURSE ${fresh_dir})
file(COPY ${ORVANE_SOURCE_DIR} ${ORVANE_INCLUDE_DIR} DESTINATION ${fresh_dir})

if(NOT ORVANE_MUTANT STREQUAL "none")
  set(mutant_patch ${PROJECT_SOURCE_DIR}/tests/mutants/${ORVANE_MUTANT}.patch)
  if(NOT EXISTS ${mutant_patch})
    message(FATAL_ERROR "No such mutant: ${mutant_patch}")
  endif()
  find_program(ORVANE_PATCH patch REQUIRED)
  execute_process(
    COMMAND ${ORVANE_PATCH} --batch --forward --fuzz=0 -p1 -i ${mutant_patch}
    WORKING_DIRECTORY ${fresh_dir}
    RESULT_VARIABLE patch_result
    OUTPUT_VARIABLE patch_output
    ERROR_VARIABLE patch_output)
  if(patch_result)
    message(FATAL_ERROR "The mutant ${ORVANE_MUTANT} does not apply:\n${patch_output}")
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${mutant_patch})
endif()

# Only what differs is written, and anew: from one mutant to the next no more is built than that.
file(GLOB_RECURSE mutant_files RELATIVE ${fresh_dir} ${fresh_dir}/*)
foreach(name IN LISTS mutant_files)
  get_filename_component(folder ${mutant_dir}/${name} DIRECTORY)
  file(MAKE_DIRECTORY ${folder})
  file(COPY_FILE ${fresh_dir}/${name} ${mutant_dir}/${name} ONLY_IF_DIFFERENT)
  if(EXISTS ${PROJECT_SOURCE_DIR}/${name})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${name})
  endif()
endforeach()

set(ORVANE_SOURCE_DIR ${mutant_dir}/source)
set(ORVANE_INCLUDE_DIR ${mutant_dir}/public_include)
