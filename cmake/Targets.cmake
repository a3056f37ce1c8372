# One function for each kind of target. Compiler options of our code are set here
# and nowhere else; sources are listed by hand.
include(OrvaneGenerate)

set(ORVANE_SANITIZE "" CACHE STRING "Sanitizers to build with: address,undefined or thread")
if(ORVANE_SANITIZE)
  # For everything, including Abseil: a sanitizer must see all synchronisation.
  string(APPEND CMAKE_CXX_FLAGS
    " -fsanitize=${ORVANE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -O1")
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # With these checks g++ 12 does not treat a function's address as a constant, which
    # Abseil's hash tables compare with null; clang++ has them. And its thread
    # sanitizer does not see the fences that Asio adds to its locks.
    string(APPEND CMAKE_CXX_FLAGS
      " -fno-sanitize=null,nonnull-attribute,returns-nonnull-attribute -Wno-tsan")
  endif()
endif()
# Clang includes libFuzzer, which finds most together with the address sanitizer.
set(_orvane_has_libfuzzer FALSE)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND ORVANE_SANITIZE MATCHES "address")
  set(_orvane_has_libfuzzer TRUE)
endif()
set(ORVANE_FUZZ_SECONDS 10 CACHE STRING "How long the test of each fuzzer looks for new inputs")

# An enclosing project gets no warnings from our code and headers, as if they were
# installed.
set(_orvane_is_subproject ON)
if(PROJECT_IS_TOP_LEVEL)
  set(_orvane_is_subproject OFF)
endif()

# orvane_options(TARGET)
# Sets the compiler options of our code for a target. Warnings are errors if
# CMAKE_COMPILE_WARNING_AS_ERROR is set, as our presets do; without it, a newer
# compiler or library with more warnings does not stop other people's builds. Paths
# in __FILE__ and debug info are relative to the tree.
function(orvane_options target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE
    -fno-exceptions "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")
  if(_orvane_is_subproject)
    target_compile_options(${target} PRIVATE -w)
    return()
  endif()
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align
    -Wunused -Wconversion -Wno-sign-conversion -Wdouble-promotion -Wextra-semi
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    $<$<BOOL:${_orvane_has_libfuzzer}>:-fsanitize=fuzzer-no-link>)
endfunction()

# orvane_library(NAME SOURCES file... [HEADERS file...] [DEPENDS target...]
#                [PRIVATE_DEPENDS target...] [HEADERS_BELOW dir])
# A static library `orvane_NAME`, linked as `orvane::NAME`. Its headers are
# included by their path from the top of the tree, or from HEADERS_BELOW. HEADERS
# are those that users of an installed orvane may include, and what these include.
function(orvane_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "HEADERS_BELOW" "SOURCES;HEADERS;DEPENDS;PRIVATE_DEPENDS")
  if(NOT arg_HEADERS_BELOW)
    set(arg_HEADERS_BELOW "${PROJECT_SOURCE_DIR}")
  endif()
  add_library(orvane_${name} STATIC ${arg_SOURCES})
  add_library(orvane::${name} ALIAS orvane_${name})
  set_target_properties(orvane_${name} PROPERTIES EXPORT_NAME ${name} SYSTEM ${_orvane_is_subproject})
  target_include_directories(orvane_${name} PUBLIC "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>")
  target_sources(orvane_${name} PUBLIC FILE_SET HEADERS BASE_DIRS "${arg_HEADERS_BELOW}" FILES ${arg_HEADERS})
  target_link_libraries(orvane_${name} PUBLIC ${arg_DEPENDS} PRIVATE ${arg_PRIVATE_DEPENDS})
  orvane_options(orvane_${name})
endfunction()

# orvane_program(NAME SOURCES file... [DEPENDS target...])
function(orvane_program name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS")
  add_executable(${name} ${arg_SOURCES})
  target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}")
  target_link_libraries(${name} PRIVATE ${arg_DEPENDS})
  orvane_options(${name})
endfunction()

# orvane_add_test(NAME command...)
# A test whose programs run under the sanitizers with our settings and suppressions.
# Its label is its folder: `ctest -L rpc/transport`.
function(orvane_add_test name)
  add_test(NAME ${name} COMMAND ${ARGN})
  cmake_path(RELATIVE_PATH CMAKE_CURRENT_SOURCE_DIR BASE_DIRECTORY "${PROJECT_SOURCE_DIR}" OUTPUT_VARIABLE folder)
  set_property(TEST ${name} PROPERTY LABELS ${folder})
  set_property(TEST ${name} PROPERTY ENVIRONMENT
    "ASAN_OPTIONS=detect_stack_use_after_return=1:strict_string_checks=1"
    "UBSAN_OPTIONS=print_stacktrace=1"
    "LSAN_OPTIONS=suppressions='${PROJECT_SOURCE_DIR}/cmake/leaks.supp':print_suppressions=0"
    "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1")
endfunction()

# orvane_no_test(file...)
# Test sources that are not built here, since what they need is not installed.
function(orvane_no_test)
  _orvane_register_tests(${ARGN})
endfunction()

# What orvane_check_every_test_is_registered looks for.
function(_orvane_register_tests)
  foreach(source IN LISTS ARGN)
    cmake_path(ABSOLUTE_PATH source)
    set_property(GLOBAL APPEND PROPERTY ORVANE_TEST_SOURCES "${source}")
  endforeach()
endfunction()

# orvane_test(NAME [OWN_HEAP] SOURCES file... [DEPENDS target...] [ARGUMENTS word...])
# A GoogleTest program that runs as one ctest test, if tests are built at all.
# OWN_HEAP: it replaces operator new to watch the heap, which is impossible under
# the thread sanitizer; the test does not exist there. A target builds all tests of
# a folder, without those below it: for examples/host it is examples.host.tests.
function(orvane_test name)
  if(NOT ORVANE_TESTS)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 arg "OWN_HEAP" "" "SOURCES;DEPENDS;ARGUMENTS")
  _orvane_register_tests(${arg_SOURCES})
  if(arg_OWN_HEAP AND ORVANE_SANITIZE STREQUAL "thread")
    return()
  endif()
  orvane_program(${name} SOURCES ${arg_SOURCES} DEPENDS ${arg_DEPENDS} GTest::gmock_main)
  # Toolkits have compiler options of their own, such as -pthread, with which the
  # shared headers are not compiled.
  if(NOT arg_DEPENDS MATCHES "orvane::(glib|qt|sdl)")
    target_precompile_headers(${name} REUSE_FROM orvane_test_headers)
    # Some protobufs have definitions, without which the headers would not fit.
    target_compile_definitions(${name} PRIVATE
      $<TARGET_PROPERTY:protobuf::libprotobuf,INTERFACE_COMPILE_DEFINITIONS>)
  endif()
  orvane_add_test(${name} ${name} ${arg_ARGUMENTS})
  get_property(folder TEST ${name} PROPERTY LABELS)
  string(REPLACE "/" "." tests_of_folder "${folder}.tests")
  if(NOT TARGET ${tests_of_folder})
    add_custom_target(${tests_of_folder})
  endif()
  add_dependencies(${tests_of_folder} ${name})
endfunction()

# orvane_test_headers()
# Compiles once what nearly every test includes, which takes a test's compiler half
# of its time. Only tests use it, so that all other files have to include what they
# need.
function(orvane_test_headers)
  add_library(orvane_test_headers OBJECT "${PROJECT_SOURCE_DIR}/cmake/test_headers.cc")
  target_link_libraries(orvane_test_headers PRIVATE
    orvane::browser_widget orvane::browser_widget_client GTest::gmock)
  orvane_options(orvane_test_headers)
  target_precompile_headers(orvane_test_headers PRIVATE
    <gmock/gmock.h> <gtest/gtest.h>
    <rpc/browser/browser_widget.client.h> <rpc/browser/browser_widget.rpc.h>)
endfunction()

# orvane_benchmark(NAME [OWN_HEAP] SOURCES file... [DEPENDS target...])
# A Google Benchmark program. Each runs briefly as a test too, so that it keeps
# working; that test does not check times. OWN_HEAP as above.
function(orvane_benchmark name)
  if(NOT ORVANE_TESTS)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 arg "OWN_HEAP" "" "SOURCES;DEPENDS")
  if(arg_OWN_HEAP AND ORVANE_SANITIZE STREQUAL "thread")
    return()
  endif()
  orvane_program(${name} SOURCES ${arg_SOURCES} DEPENDS ${arg_DEPENDS} benchmark::benchmark_main)
  orvane_add_test(${name} ${name} --benchmark_min_time=0.001)
endfunction()

# orvane_fuzzer(NAME SOURCES file... [DEPENDS target...] [ARGUMENTS word...])
# A program with libFuzzer's entry point, and a test of the same name. With
# libFuzzer the test starts from corpus/NAME and tries new inputs for a while, with
# these arguments; without it, the test plays the inputs of that folder.
function(orvane_fuzzer name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS;ARGUMENTS")
  set(corpus "${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name}")
  set(found "${CMAKE_CURRENT_BINARY_DIR}/found/${name}")
  orvane_program(${name} SOURCES ${arg_SOURCES} initialize.cc
    DEPENDS ${arg_DEPENDS} absl::log absl::log_initialize GTest::gtest)
  if(_orvane_has_libfuzzer)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    # New inputs are written to the first folder.
    file(MAKE_DIRECTORY "${found}")
    orvane_add_test(${name} ${name} "-max_total_time=${ORVANE_FUZZ_SECONDS}" ${arg_ARGUMENTS}
      "${found}" "${corpus}")
    math(EXPR timeout "${ORVANE_FUZZ_SECONDS} + 290")
    set_property(TEST ${name} PROPERTY TIMEOUT ${timeout})
  else()
    target_sources(${name} PRIVATE replay.cc)
    orvane_add_test(${name} ${name} "${corpus}")
  endif()
endfunction()

# orvane_proto_library(NAME IMPORT_ROOT dir PROTOS file... [DEPENDS target...])
# Message code of protos, as the library `orvane::NAME`.
function(orvane_proto_library name)
  orvane_generate(orvane_${name} ${ARGN} MESSAGES_ONLY)
  add_library(orvane::${name} ALIAS orvane_${name})
  set_target_properties(orvane_${name} PROPERTIES EXPORT_NAME ${name})
endfunction()

# Called last: a test file that nobody registered would silently never run.
function(orvane_check_every_test_is_registered)
  get_property(registered GLOBAL PROPERTY ORVANE_TEST_SOURCES)
  file(GLOB_RECURSE on_disk CONFIGURE_DEPENDS
    "${PROJECT_SOURCE_DIR}/zimbrel/*_test.cc" "${PROJECT_SOURCE_DIR}/gen/*_test.cc"
    "${PROJECT_SOURCE_DIR}/host/*_test.cc" "${PROJECT_SOURCE_DIR}/engines/*_test.cc"
    "${PROJECT_SOURCE_DIR}/examples/*_test.cc" "${PROJECT_SOURCE_DIR}/tools/*_test.cc"
    "${PROJECT_SOURCE_DIR}/benchmarks/*_test.cc" "${PROJECT_SOURCE_DIR}/docs/*_test.cc"
    "${PROJECT_SOURCE_DIR}/scripts/*_test.cc")
  foreach(file IN LISTS on_disk)
    if(NOT file IN_LIST registered)
      message(FATAL_ERROR "${file} is not registered with orvane_test, so it would never run")
    endif()
  endforeach()
endfunction()
