# Provides Abseil, including its logging library, as imported targets absl::…
#
# Uses the system's Abseil if it has absl/log. Debian 12's is too old for that.
# Then the libraries that we use are built from the source that scripts/setup put
# into the cache, once for each compiler and sanitizer, since code with and
# without a sanitizer must not be mixed. ORVANE_BUILT_ABSEIL is then the folder of
# that build, which packaging/ installs with our libraries.

set(ORVANE_CACHE_DIR "" CACHE PATH
    "Folder for sources and builds of dependencies, shared by all build trees; if empty, that of the environment variable")
if(NOT ORVANE_CACHE_DIR)
  if(NOT "$ENV{ORVANE_CACHE_DIR}" STREQUAL "")
    set(ORVANE_CACHE_DIR "$ENV{ORVANE_CACHE_DIR}")
  elseif(NOT "$ENV{XDG_CACHE_HOME}" STREQUAL "")
    set(ORVANE_CACHE_DIR "$ENV{XDG_CACHE_HOME}/orvane")
  else()
    set(ORVANE_CACHE_DIR "$ENV{HOME}/.cache/orvane")
  endif()
endif()

if(TARGET absl::log)
  message(STATUS "Abseil: from the enclosing project")
  return()
endif()

find_path(ORVANE_SYSTEM_ABSL_LOG absl/log/log.h)
mark_as_advanced(ORVANE_SYSTEM_ABSL_LOG)
if(ORVANE_SYSTEM_ABSL_LOG)
  find_package(absl CONFIG REQUIRED)
  message(STATUS "Abseil: the system's, ${absl_DIR}")
  return()
endif()

set(abseil_source_dir "${ORVANE_CACHE_DIR}/abseil-20240722.0/source")
if(NOT EXISTS "${abseil_source_dir}/CMakeLists.txt")
  message(FATAL_ERROR
    "Abseil with its logging library is missing, both in the system and in "
    "${abseil_source_dir}. scripts/setup fetches it.")
endif()

file(SHA256 "${CMAKE_CURRENT_LIST_DIR}/abseil/CMakeLists.txt" abseil_recipe)
string(SHA256 abseil_variant
  "${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION} ${CMAKE_CXX_FLAGS} ${abseil_recipe}")
string(SUBSTRING "${abseil_variant}" 0 12 abseil_variant)
set(abseil_variant "${ORVANE_CACHE_DIR}/abseil-20240722.0/${CMAKE_CXX_COMPILER_ID}-${abseil_variant}")

if(NOT EXISTS "${abseil_variant}/complete")
  message(STATUS "Abseil: building in ${abseil_variant}, once, about a minute")
  # Locked, since two build trees may be configured at the same time.
  file(LOCK "${abseil_variant}.lock" GUARD FILE)
  if(NOT EXISTS "${abseil_variant}/complete")
    # Of a build that was interrupted, maybe with another generator.
    file(REMOVE_RECURSE "${abseil_variant}/build")
    foreach(step IN ITEMS
        "-S;${CMAKE_CURRENT_LIST_DIR}/abseil;-B;${abseil_variant}/build;-G;${CMAKE_GENERATOR};-DCMAKE_BUILD_TYPE=Release;-DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER};-DCMAKE_CXX_FLAGS=${CMAKE_CXX_FLAGS};-DCMAKE_INSTALL_PREFIX=${abseil_variant};-DABSEIL_SOURCE_DIR=${abseil_source_dir}"
        "--build;${abseil_variant}/build;--target;needed;--config;Release"
        "--install;${abseil_variant}/build;--config;Release")
      execute_process(COMMAND "${CMAKE_COMMAND}" ${step}
        OUTPUT_FILE "${abseil_variant}.log" ERROR_FILE "${abseil_variant}.log" RESULT_VARIABLE failed)
      if(failed)
        file(READ "${abseil_variant}.log" end_of_log)
        string(LENGTH "${end_of_log}" length)
        if(length GREATER 1000)
          math(EXPR left_out "${length} - 1000")
          string(SUBSTRING "${end_of_log}" ${left_out} -1 end_of_log)
        endif()
        message(FATAL_ERROR
          "cannot build Abseil. If the disk is full, set ORVANE_CACHE_DIR to a folder on another "
          "one. The end of ${abseil_variant}.log:\n${end_of_log}")
      endif()
    endforeach()
    file(REMOVE_RECURSE "${abseil_variant}/build")
    file(TOUCH "${abseil_variant}/complete")
  endif()
  file(LOCK "${abseil_variant}.lock" RELEASE)
endif()

set(ORVANE_BUILT_ABSEIL "${abseil_variant}")
set(absl_DIR "${ORVANE_BUILT_ABSEIL}/lib/cmake/absl" CACHE PATH "Abseil's CMake package" FORCE)
find_package(absl CONFIG REQUIRED)
message(STATUS "Abseil: our build, ${ORVANE_BUILT_ABSEIL}")
