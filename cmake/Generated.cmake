# Committed output of protoc-gen-orvane.

if(NOT TARGET update-generated)
  add_custom_target(update-generated COMMENT "Rewriting committed output of protoc-gen-orvane")
endif()

# orvane_committed_output(NAME DIRECTORY dir PROTOS file... [IMPORTS dir...] [PARAMETER text])
# The generator's output for PROTOS is committed in DIRECTORY, at the protos'
# paths: x.rpc.h, x.rpc.cc, x.client.h and x.client.cc, or x_client.py; no file for
# a proto without services; x.error.txt for a proto that is refused. The test NAME
# compares it with the generator's current output; the target update-generated
# rewrites it. Protos are found below IMPORTS, by default DIRECTORY. PARAMETER is
# passed to the generator.
function(orvane_committed_output name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "DIRECTORY;PARAMETER" "IMPORTS;PROTOS")
  if(NOT arg_IMPORTS)
    set(arg_IMPORTS "${arg_DIRECTORY}")
  endif()
  list(JOIN arg_IMPORTS "," imports)
  list(JOIN arg_PROTOS "," protos)
  set(command "${CMAKE_COMMAND}"
    "-DPROTOC=$<TARGET_FILE:protobuf::protoc>"
    "-DPLUGIN=$<TARGET_FILE:orvane::protoc-gen-orvane>"
    "-DDIRECTORY=${arg_DIRECTORY}" "-DIMPORTS=${imports}" "-DPROTOS=${protos}"
    "-DPARAMETER=${arg_PARAMETER}"
    "-DSCRATCH=${CMAKE_CURRENT_BINARY_DIR}/${name}.scratch"
    "-DUPDATE_COMMAND=cmake --build ${PROJECT_BINARY_DIR} --target update-generated")
  add_test(NAME ${name} COMMAND ${command} -P "${PROJECT_SOURCE_DIR}/cmake/committed_output.cmake")
  add_custom_target(update-${name}
    COMMAND ${command} -DUPDATE=ON -P "${PROJECT_SOURCE_DIR}/cmake/committed_output.cmake"
    DEPENDS orvane::protoc-gen-orvane VERBATIM)
  add_dependencies(update-generated update-${name})
endfunction()
