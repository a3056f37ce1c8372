# Turns protos into a library, in this build and, installed with the package, in
# other projects.

cmake_policy(VERSION 3.25)

# orvane_generate(NAME IMPORT_ROOT dir PROTOS file... [DEPENDS target...] [MESSAGES_ONLY])
#
# Adds the static library NAME for PROTOS, whose paths are relative to IMPORT_ROOT.
# Each x.proto gives three headers with the same path:
#   x.pb.h      its messages
#   x.rpc.h     the classes to derive a server from
#   x.client.h  the classes to call a server through
# The last two are empty if the proto has no service. A target that links NAME also
# links the runtime and the transport.
#
# DEPENDS are other such libraries, whose protos these may import. All may import
# rpc/browser/browser_id.proto, rpc/event_subscription.proto and
# rpc/stream_options.proto, which declarations of services need.
#
# MESSAGES_ONLY makes x.pb.h only. NAME then links protobuf and DEPENDS only, and
# the protos may import those of DEPENDS only, such as orvane::runtime_protos.
#
# Everything is generated in the build tree, and again after a change of a proto,
# of one of its imports, of protoc or of protoc-gen-orvane.
function(orvane_generate name)
  set(call "orvane_generate(${name} ...)")
  cmake_parse_arguments(PARSE_ARGV 1 arg "MESSAGES_ONLY" "IMPORT_ROOT" "PROTOS;DEPENDS")
  # CMake adds an unknown word to the list before it.
  set(unknown ${arg_PROTOS})
  list(FILTER unknown EXCLUDE REGEX "\\.proto$")
  list(PREPEND unknown ${arg_UNPARSED_ARGUMENTS})
  foreach(dependency IN LISTS arg_DEPENDS)
    if(NOT TARGET ${dependency})
      list(APPEND unknown ${dependency})
    endif()
  endforeach()
  if(unknown)
    list(JOIN unknown " " unknown)
    message(FATAL_ERROR "${call} does not know: ${unknown}")
  endif()
  foreach(required IN ITEMS IMPORT_ROOT PROTOS)
    if("${arg_${required}}" STREQUAL "")
      message(FATAL_ERROR "${call} needs ${required}")
    endif()
  endforeach()

  set(needs protobuf::libprotobuf ${arg_DEPENDS})
  set(kinds pb)
  set(plugin "")
  set(out "${CMAKE_CURRENT_BINARY_DIR}/${name}.gen")
  if(NOT arg_MESSAGES_ONLY)
    list(APPEND needs orvane::runtime_protos orvane::streams orvane::transport absl::log)
    list(APPEND kinds rpc client)
    # Fatal log entries name the source by its path relative to the build folder.
    cmake_path(RELATIVE_PATH out BASE_DIRECTORY "${PROJECT_BINARY_DIR}" OUTPUT_VARIABLE log_path)
    set(plugin orvane::protoc-gen-orvane)
  endif()

  get_filename_component(root "${arg_IMPORT_ROOT}" ABSOLUTE)
  set(roots "${root}")
  foreach(dependency IN LISTS needs)
    get_target_property(known ${dependency} ORVANE_PROTO_ROOTS)
    if(known)
      list(APPEND roots ${known})
    elseif(dependency IN_LIST arg_DEPENDS)
      message(FATAL_ERROR "${call} DEPENDS on ${dependency}, which orvane_generate has not made")
    endif()
  endforeach()
  list(REMOVE_DUPLICATES roots)
  list(TRANSFORM roots PREPEND "-I" OUTPUT_VARIABLE imports)

  file(MAKE_DIRECTORY "${out}")
  set(sources "")
  set(headers "")
  foreach(proto IN LISTS arg_PROTOS)
    string(REGEX REPLACE "\\.proto$" "" stem "${proto}")
    list(TRANSFORM kinds REPLACE "(.+)" "${out}/${stem}.\\1.cc" OUTPUT_VARIABLE made_sources)
    list(TRANSFORM kinds REPLACE "(.+)" "${out}/${stem}.\\1.h" OUTPUT_VARIABLE made_headers)
    set(made ${made_sources} ${made_headers})
    set(run_plugin "")
    if(plugin)
      # A separate run of protoc: a file of dependencies must begin with the first
      # of the outputs. Without services the plugin writes no file; touch makes an
      # empty one.
      set(run_plugin
        COMMAND protobuf::protoc ${imports} "--plugin=protoc-gen-orvane=$<TARGET_FILE:${plugin}>"
                "--orvane_out=log_path_prefix=${log_path}:${out}" "${root}/${proto}"
        COMMAND "${CMAKE_COMMAND}" -E touch ${made})
    endif()
    add_custom_command(OUTPUT ${made}
      COMMAND "${CMAKE_COMMAND}" -E rm -f ${made}
      COMMAND protobuf::protoc ${imports} "--cpp_out=${out}" "--dependency_out=${out}/${stem}.d"
              "${root}/${proto}"
      # protoc does not escape spaces in its file of dependencies. A path would end
      # at the first space and name a file that does not exist, and every build
      # would generate everything again.
      COMMAND sed -i -e [[s/ /\\ /g]] -e [[s/\\ \\$/ \\/]] -e [[s/:\\ /: /]] -e [[s/^\\ / /]]
              "${out}/${stem}.d"
      ${run_plugin}
      DEPENDS "${root}/${proto}" protobuf::protoc ${plugin}
      DEPFILE "${out}/${stem}.d"
      COMMENT "${name}: generating from ${proto}" VERBATIM)
    list(APPEND sources ${made_sources})
    list(APPEND headers ${made_headers})
  endforeach()

  add_library(${name} STATIC ${sources})
  target_sources(${name} PUBLIC FILE_SET HEADERS BASE_DIRS "${out}" FILES ${headers})
  # protoc gives the same names to local variables of all its files.
  set_target_properties(${name} PROPERTIES
    CXX_EXTENSIONS OFF ORVANE_PROTO_ROOTS "${roots}" UNITY_BUILD OFF)
  target_compile_features(${name} PUBLIC cxx_std_20)
  # Nobody edits generated code, so it compiles without warnings, here and where it
  # is included.
  target_compile_options(${name} PRIVATE -w)
  target_include_directories(${name} SYSTEM PUBLIC "$<BUILD_INTERFACE:${out}>")
  target_link_libraries(${name} PUBLIC ${needs})
endfunction()
