# What turns protos into a library, in this build and, installed with the
# package, in that of anybody else.

cmake_policy(VERSION 3.25)

# orvane_generate(NAME IMPORT_ROOT dir PROTOS file... [DEPENDS target...] [MESSAGES_ONLY])
#
# A static library NAME of PROTOS, which are named by their paths below
# IMPORT_ROOT. For each x.proto one includes, by the same path,
#   x.pb.h      its messages,
#   x.rpc.h     the classes to derive a server from,
#   x.client.h  and those to call one through; the latter two are empty if the
#               proto has no service.
# Linking NAME brings the runtime and the transport along.
#
# DEPENDS are other such libraries, whose protos these may import. Everybody may
# import what services are made with: rpc/browser/browser_id.proto,
# rpc/event_subscription.proto and rpc/stream_options.proto.
#
# MESSAGES_ONLY: makes x.pb.h only, and NAME brings protobuf along and nothing
# else. What it may import is that of DEPENDS, such as orvane::runtime_protos.
#
# All is made in the build tree, and made again when a proto, an import of it,
# protoc or protoc-gen-orvane has changed.
function(orvane_generate name)
  set(call "orvane_generate(${name} ...)")
  cmake_parse_arguments(PARSE_ARGV 1 arg "MESSAGES_ONLY" "IMPORT_ROOT" "PROTOS;DEPENDS")
  # A word that is no option is taken for one more of the list before it.
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
    # Fatal log entries tell where the source lies below the top of the build.
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
      # By itself: a file of dependencies must begin with the first of the outputs.
      # What the plugin does not write, for want of services, is then empty, and
      # not what was written when there were some.
      set(run_plugin
        COMMAND protobuf::protoc ${imports} "--plugin=protoc-gen-orvane=$<TARGET_FILE:${plugin}>"
                "--orvane_out=log_path_prefix=${log_path}:${out}" "${root}/${proto}"
        COMMAND "${CMAKE_COMMAND}" -E touch ${made})
    endif()
    add_custom_command(OUTPUT ${made}
      COMMAND "${CMAKE_COMMAND}" -E rm -f ${made}
      COMMAND protobuf::protoc ${imports} "--cpp_out=${out}" "--dependency_out=${out}/${stem}.d"
              "${root}/${proto}"
      # protoc escapes no spaces. A path would end at one, and all would be made
      # again by every build, since what the rest names does not exist.
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
  set_target_properties(${name} PROPERTIES CXX_EXTENSIONS OFF ORVANE_PROTO_ROOTS "${roots}")
  target_compile_features(${name} PUBLIC cxx_std_20)
  # Nobody edits it, so nobody is warned, neither here nor where it is included.
  target_compile_options(${name} PRIVATE -w)
  target_include_directories(${name} SYSTEM PUBLIC "$<BUILD_INTERFACE:${out}>")
  target_link_libraries(${name} PUBLIC ${needs})
endfunction()
