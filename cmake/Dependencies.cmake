# Everything that we build on. scripts/setup installs it on Debian. A project
# around ours sees the targets too, since it links what we make.
set(CMAKE_FIND_PACKAGE_TARGETS_GLOBAL ${_orvane_is_subproject})
find_package(Threads REQUIRED)
include(Abseil)

# Protobuf's own package where there is one (it brings its Abseil along), else
# CMake's finder, which knows Debian 12's.
if(NOT TARGET protobuf::libprotobuf)
  find_package(Protobuf CONFIG QUIET)
  if(NOT Protobuf_FOUND)
    find_package(Protobuf 3.21 MODULE REQUIRED)
  endif()
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND ORVANE_SANITIZE STREQUAL "thread")
  add_compile_options("SHELL:-include \"${CMAKE_CURRENT_LIST_DIR}/protobuf_under_tsan.h\"")
endif()

# What runs inside these toolkits' main loops is built and tested where they are.
include(OrvaneMainLoops)
if(ORVANE_PROGRAMS)
  foreach(toolkit IN ITEMS glib qt sdl)
    orvane_main_loop(${toolkit})
    if(NOT TARGET orvane::${toolkit})
      message(STATUS "orvane::${toolkit}: not built or tested, since its toolkit is not installed")
    endif()
  endforeach()
endif()

if(NOT ORVANE_TESTS)
  return()
endif()
find_package(GTest CONFIG REQUIRED)
find_package(benchmark CONFIG REQUIRED)

# Standalone Asio, headers only, is something to measure against. Without
# exceptions it asks for a throw hook, which benchmarks/transport/asio_hook.h is.
find_path(ORVANE_ASIO_INCLUDE_DIR asio.hpp REQUIRED)
mark_as_advanced(ORVANE_ASIO_INCLUDE_DIR)
add_library(orvane_asio INTERFACE)
target_include_directories(orvane_asio SYSTEM INTERFACE "${ORVANE_ASIO_INCLUDE_DIR}")
target_compile_definitions(orvane_asio INTERFACE ASIO_STANDALONE ASIO_NO_EXCEPTIONS ASIO_NO_DEPRECATED)
target_link_libraries(orvane_asio INTERFACE Threads::Threads)
