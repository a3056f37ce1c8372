# The libraries that we use. scripts/setup installs them on Debian. An enclosing
# project sees their targets too, since it links our libraries.
set(CMAKE_FIND_PACKAGE_TARGETS_GLOBAL ${_orvane_is_subproject})
find_package(Threads REQUIRED)
include(Abseil)

# Protobuf's own package if it is installed (it finds its Abseil too), otherwise
# CMake's module, which finds Debian 12's.
if(NOT TARGET protobuf::libprotobuf)
  find_package(Protobuf CONFIG QUIET)
  if(NOT Protobuf_FOUND)
    find_package(Protobuf 3.21 MODULE REQUIRED)
  endif()
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND ORVANE_SANITIZE STREQUAL "thread")
  add_compile_options("SHELL:-include \"${CMAKE_CURRENT_LIST_DIR}/protobuf_under_tsan.h\"")
  # Which have to be the first for g++.
  set(CMAKE_DISABLE_PRECOMPILE_HEADERS ON)
endif()

# Event loops inside toolkits' main loops, for the toolkits that are installed.
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

# Standalone Asio, headers only, with which benchmarks compare our transport.
# Without exceptions it needs a throw hook: benchmarks/transport/asio_hook.h.
find_path(ORVANE_ASIO_INCLUDE_DIR asio.hpp REQUIRED)
mark_as_advanced(ORVANE_ASIO_INCLUDE_DIR)
add_library(orvane_asio INTERFACE)
target_include_directories(orvane_asio SYSTEM INTERFACE "${ORVANE_ASIO_INCLUDE_DIR}")
target_compile_definitions(orvane_asio INTERFACE ASIO_STANDALONE ASIO_NO_EXCEPTIONS ASIO_NO_DEPRECATED)
target_link_libraries(orvane_asio INTERFACE Threads::Threads)
