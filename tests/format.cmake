# Fails when a source file is not laid out as .clang-format says. Without clang-format 14 it tells
# so and counts as skipped; with CI=true in the environment that is a failure.
set(version "")
if(CLANG_FORMAT)
  execute_process(COMMAND ${CLANG_FORMAT} --version OUTPUT_VARIABLE version ERROR_QUIET)
endif()
if(NOT version MATCHES "version 14\\.")
  set(reason "Format not checked: clang-format 14 is not installed (found: ${version})")
  if("$ENV{CI}" STREQUAL "true")
    string(REPLACE "Format not checked" "Cannot check the format" reason "${reason}")
    message(FATAL_ERROR "${reason}")
  endif()
  message(STATUS "${reason}")
  return()
endif()

file(GLOB_RECURSE sources
  ${SOURCE_DIR}/src/*.?pp ${SOURCE_DIR}/tests/*.?pp ${SOURCE_DIR}/tools/*.?pp
  ${SOURCE_DIR}/bench/*.?pp)
list(LENGTH sources count)
if(count EQUAL 0)
  message(FATAL_ERROR "No sources below ${SOURCE_DIR}")
endif()
execute_process(COMMAND ${CLANG_FORMAT} --dry-run --Werror --style=file ${sources}
                RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "Not formatted: run clang-format -i on the files above")
endif()
message(STATUS "${count} files are formatted")
