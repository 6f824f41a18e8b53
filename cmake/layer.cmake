# spot_layer(<library> <folder>/<name>...) makes one static library from the stems given, a test
# program <name>_test for every stem that has one, and a fuzz target <name>_fuzz for every stem
# that has one: with libFuzzer when SPOT_FUZZ is on, otherwise as a program that replays the
# committed corpus, which ctest runs. With SPOT_BENCH, a benchmark <name>_bench for every stem that
# has one; the sample station supplies what it works on.
function(spot_layer library)
  set(sources "")
  foreach(stem ${ARGN})
    set(path ${CMAKE_CURRENT_SOURCE_DIR}/${stem})
    if(EXISTS ${path}.cpp)
      list(APPEND sources ${path}.cpp)
    endif()
    if(NOT EXISTS ${path}.hpp)
      message(FATAL_ERROR "${library}: ${stem}.hpp does not exist")
    endif()
  endforeach()
  add_library(${library} STATIC ${sources})
  target_link_libraries(${library} PUBLIC spot_flags)

  foreach(stem ${ARGN})
    set(path ${CMAKE_CURRENT_SOURCE_DIR}/${stem})
    get_filename_component(name ${stem} NAME)
    if(BUILD_TESTING AND EXISTS ${path}_test.cpp)
      spot_stem_test(${library} ${path}_test.cpp)
    endif()
    if(BUILD_TESTING AND EXISTS ${path}_fuzz.cpp)
      spot_fuzz_target(${library} ${name} ${path}_fuzz.cpp)
    endif()
    if(SPOT_BENCH AND EXISTS ${path}_bench.cpp)
      add_executable(${name}_bench ${path}_bench.cpp)
      target_link_libraries(${name}_bench PRIVATE ${library} station benchmark::benchmark_main)
      target_include_directories(${name}_bench PRIVATE
        ${CMAKE_SOURCE_DIR}/bench ${CMAKE_SOURCE_DIR}/tests)
      target_compile_definitions(${name}_bench PRIVATE SPOT_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
    endif()
  endforeach()
endfunction()

# spot_stem_test(<library> <path>/<name>_test.cpp) makes the test program <name>_test for a stem of
# the library.
function(spot_stem_test library source)
  get_filename_component(name ${source} NAME_WE)
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE ${library} GTest::gmock GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_compile_definitions(${name} PRIVATE SPOT_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  spot_compile_quickly(${name})
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 120 PROPERTIES TIMEOUT 300)
endfunction()

# Half of a full build would go into optimising test programs that run for milliseconds.
function(spot_compile_quickly target)
  target_compile_options(${target} PRIVATE $<$<CONFIG:Release>:-O1>)
endfunction()

# All fuzz targets, to be built without anything else.
add_custom_target(corpora)

function(spot_fuzz_target library name source)
  set(corpus ${CMAKE_SOURCE_DIR}/tests/corpus/${name})
  if(SPOT_FUZZ)
    add_executable(${name}_fuzz ${source})
    target_link_options(${name}_fuzz PRIVATE -fsanitize=fuzzer)
  else()
    add_executable(${name}_fuzz ${source} ${CMAKE_SOURCE_DIR}/tests/replay_corpus.cpp)
    add_test(NAME ${name}_corpus COMMAND ${name}_fuzz ${corpus})
    set_tests_properties(${name}_corpus PROPERTIES TIMEOUT 300)
  endif()
  add_dependencies(corpora ${name}_fuzz)
  target_link_libraries(${name}_fuzz PRIVATE ${library})
  target_include_directories(${name}_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/tests)
endfunction()
