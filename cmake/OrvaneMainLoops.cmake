# Runs an event loop inside a toolkit's main loop, in this build and, installed
# with the package, in other projects.

cmake_policy(VERSION 3.25)

# orvane_main_loop(COMPONENT)
# Adds orvane::COMPONENT, which links the toolkit and what our header for it needs:
# glib (GLib 2, for GTK too), qt (Qt 6) or sdl (SDL 2). Adds nothing if the toolkit
# is not installed.
function(orvane_main_loop component)
  if(TARGET orvane::${component})
    return()
  endif()
  if(component STREQUAL "glib")
    find_package(PkgConfig QUIET)
    if(PkgConfig_FOUND)
      pkg_check_modules(ORVANE_GLIB QUIET IMPORTED_TARGET glib-2.0)
    endif()
    set(toolkit PkgConfig::ORVANE_GLIB)
  elseif(component STREQUAL "qt")
    find_package(Qt6 QUIET COMPONENTS Core)
    set(toolkit Qt6::Core)
  elseif(component STREQUAL "sdl")
    find_package(SDL2 QUIET)
    set(toolkit SDL2::SDL2)
  endif()
  if(TARGET "${toolkit}")
    add_library(orvane::${component} INTERFACE IMPORTED)
    target_link_libraries(orvane::${component} INTERFACE orvane::contracts absl::log ${toolkit})
  endif()
endfunction()
