# One function for each kind of thing that we build. Compiler options of ours
# are set here and nowhere else; sources are listed by hand.

set(ORVANE_SANITIZE "" CACHE STRING "Sanitizers to build with: address,undefined or thread")
if(ORVANE_SANITIZE)
  # For everything, Abseil included: a sanitizer must see all that synchronises.
  string(APPEND CMAKE_CXX_FLAGS
    " -fsanitize=${ORVANE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -O1")
endif()

# Paths in __FILE__ and debug info are those of the tree, wherever it lies.
function(_orvane_options target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align
    -Wunused -Wconversion -Wno-sign-conversion -Wdouble-promotion -Wextra-semi -Werror
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    -fno-exceptions "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")
endfunction()

# orvane_library(NAME SOURCES file... [DEPENDS target...] [PRIVATE_DEPENDS target...])
# A static library `orvane_NAME`, linked as `orvane::NAME`. Its headers are
# included by their path from the top of the tree.
function(orvane_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS;PRIVATE_DEPENDS")
  add_library(orvane_${name} STATIC ${arg_SOURCES})
  add_library(orvane::${name} ALIAS orvane_${name})
  set_target_properties(orvane_${name} PROPERTIES EXPORT_NAME ${name})
  target_include_directories(orvane_${name} PUBLIC "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>")
  target_link_libraries(orvane_${name} PUBLIC ${arg_DEPENDS} PRIVATE ${arg_PRIVATE_DEPENDS})
  _orvane_options(orvane_${name})
endfunction()

# orvane_program(NAME SOURCES file... [DEPENDS target...])
function(orvane_program name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS")
  add_executable(${name} ${arg_SOURCES})
  target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}")
  target_link_libraries(${name} PRIVATE ${arg_DEPENDS})
  _orvane_options(${name})
endfunction()

# Runs `program` with the words that follow as the test `name`.
function(_orvane_add_test name program)
  add_test(NAME ${name} COMMAND ${program} ${ARGN})
  set_property(TEST ${name} PROPERTY ENVIRONMENT
    "ASAN_OPTIONS=detect_stack_use_after_return=1:strict_string_checks=1"
    "UBSAN_OPTIONS=print_stacktrace=1"
    "LSAN_OPTIONS=suppressions='${PROJECT_SOURCE_DIR}/cmake/leaks.supp':print_suppressions=0"
    "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1")
endfunction()

# orvane_test(NAME [OWN_HEAP] SOURCES file... [DEPENDS target...] [ARGUMENTS word...])
# A GoogleTest program that runs as one ctest test. OWN_HEAP: it replaces
# operator new to watch the heap, which the thread sanitizer keeps to itself;
# there the test does not exist.
function(orvane_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "OWN_HEAP" "" "SOURCES;DEPENDS;ARGUMENTS")
  foreach(source IN LISTS arg_SOURCES)
    cmake_path(ABSOLUTE_PATH source)
    set_property(GLOBAL APPEND PROPERTY ORVANE_TEST_SOURCES "${source}")
  endforeach()
  if(arg_OWN_HEAP AND ORVANE_SANITIZE STREQUAL "thread")
    return()
  endif()
  orvane_program(${name} SOURCES ${arg_SOURCES} DEPENDS ${arg_DEPENDS} GTest::gmock_main)
  _orvane_add_test(${name} ${name} ${arg_ARGUMENTS})
endfunction()

# orvane_benchmark(NAME [OWN_HEAP] SOURCES file... [DEPENDS target...])
# A Google Benchmark program. Each runs for a moment among the tests, so that it
# cannot rot; nothing there asserts a time. OWN_HEAP as above.
function(orvane_benchmark name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "OWN_HEAP" "" "SOURCES;DEPENDS")
  if(arg_OWN_HEAP AND ORVANE_SANITIZE STREQUAL "thread")
    return()
  endif()
  orvane_program(${name} SOURCES ${arg_SOURCES} DEPENDS ${arg_DEPENDS} benchmark::benchmark_main)
  _orvane_add_test(${name} ${name} --benchmark_min_time=0.001)
endfunction()

# Message code of protos below IMPORT_ROOT, as the library `orvane::NAME`. It is
# made in the build tree, since it belongs to the installed protobuf. DEPENDS are
# other such libraries, whose protos these may import.
# orvane_proto_library(NAME IMPORT_ROOT dir PROTOS file... [DEPENDS target...])
function(orvane_proto_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "IMPORT_ROOT" "PROTOS;DEPENDS")
  set(out "${CMAKE_CURRENT_BINARY_DIR}/${name}.pb")
  set(sources "")
  set(headers "")
  set(inputs "")
  set(roots "${arg_IMPORT_ROOT}")
  foreach(dependency IN LISTS arg_DEPENDS)
    get_target_property(needed ${dependency} ORVANE_PROTO_ROOTS)
    list(APPEND roots ${needed})
  endforeach()
  list(REMOVE_DUPLICATES roots)
  list(TRANSFORM roots PREPEND "-I" OUTPUT_VARIABLE imports)
  foreach(proto IN LISTS arg_PROTOS)
    string(REGEX REPLACE "\\.proto$" "" stem "${proto}")
    list(APPEND sources "${out}/${stem}.pb.cc")
    list(APPEND headers "${out}/${stem}.pb.h")
    list(APPEND inputs "${arg_IMPORT_ROOT}/${proto}")
  endforeach()
  file(MAKE_DIRECTORY "${out}")
  add_custom_command(OUTPUT ${sources} ${headers}
    COMMAND protobuf::protoc ${imports} "--cpp_out=${out}" ${inputs}
    DEPENDS ${inputs} protobuf::protoc
    COMMENT "protoc: ${name}" VERBATIM)
  add_library(orvane_${name} STATIC ${sources})
  add_library(orvane::${name} ALIAS orvane_${name})
  set_target_properties(orvane_${name} PROPERTIES EXPORT_NAME ${name} CXX_EXTENSIONS OFF
    ORVANE_PROTO_ROOTS "${roots}")
  target_compile_features(orvane_${name} PUBLIC cxx_std_20)
  # Not ours to warn about, neither here nor where it is included.
  target_compile_options(orvane_${name} PRIVATE -w)
  target_include_directories(orvane_${name} SYSTEM PUBLIC "$<BUILD_INTERFACE:${out}>")
  target_link_libraries(orvane_${name} PUBLIC protobuf::libprotobuf ${arg_DEPENDS})
endfunction()

# Called last: a test file that nobody registered would silently never run.
function(orvane_check_every_test_is_registered)
  get_property(registered GLOBAL PROPERTY ORVANE_TEST_SOURCES)
  file(GLOB_RECURSE on_disk CONFIGURE_DEPENDS
    "${PROJECT_SOURCE_DIR}/zimbrel/*_test.cc" "${PROJECT_SOURCE_DIR}/gen/*_test.cc"
    "${PROJECT_SOURCE_DIR}/examples/*_test.cc" "${PROJECT_SOURCE_DIR}/tools/*_test.cc"
    "${PROJECT_SOURCE_DIR}/benchmarks/*_test.cc" "${PROJECT_SOURCE_DIR}/scripts/*_test.cc")
  foreach(file IN LISTS on_disk)
    if(NOT file IN_LIST registered)
      message(FATAL_ERROR "${file} is not registered with orvane_test, so it would never run")
    endif()
  endforeach()
endfunction()
