# cmake -DROOT=dir -P check_layers.cmake
#
# Who may include whom. An arrow that is not listed here is a mistake in the
# architecture, so it fails a test. Tests themselves may include anything.
set(rpc "zimbrel/src/core/common/rpc")
set(contracts "${rpc}/[a-z_]+\\.h")
set(protos "rpc/[a-z_/]+\\.pb\\.h")

function(allow folder)
  list(JOIN ARGN "|" allowed)
  file(GLOB files RELATIVE "${ROOT}" "${ROOT}/${folder}/*.h" "${ROOT}/${folder}/*.cc")
  list(FILTER files EXCLUDE REGEX "_(test|benchmark)\\.cc$")
  if(NOT files)
    message(SEND_ERROR "${folder} holds no sources")
  endif()
  foreach(file IN LISTS files)
    # What comes before the first namespace: the generator's own files hold the
    # includes of its output further below.
    file(READ "${ROOT}/${file}" text)
    string(REGEX REPLACE "\nnamespace .*" "" text "${text}")
    string(REGEX MATCHALL "#include \"(zimbrel|rpc|examples|tools|gen)/[^\"]+" lines "${text}")
    foreach(line IN LISTS lines)
      string(REPLACE "#include \"" "" included "${line}")
      if(NOT included MATCHES "^(${allowed})$")
        message(SEND_ERROR "${file} must not include ${included}")
      endif()
    endforeach()
  endforeach()
endfunction()

set(logging "zimbrel/src/core/common/logging/[a-z_]+\\.h")
allow(zimbrel/src/core/common/logging "${logging}")
allow(${rpc} "${contracts}" "rpc/transport/stream_message.pb.h" "rpc/event_subscription.pb.h")
allow(${rpc}/stream "${rpc}/stream/[a-z_]+\\.h" "${contracts}" "${protos}" "${logging}")
set(transport_protos "rpc/transport/[a-z_]+\\.pb\\.h" "rpc/event_subscription\\.pb\\.h" "rpc/stream_options\\.pb\\.h")
allow(${rpc}/transport/wire "${rpc}/transport/wire/[a-z_]+\\.h" "${rpc}/transport/frame_limits\\.h"
      "${contracts}" ${transport_protos})
allow(${rpc}/transport/server "${rpc}/transport/(server|wire)/[a-z_]+\\.h"
      "${rpc}/transport/(server_limits|socket_server)\\.h" "${contracts}" ${transport_protos})
allow(${rpc}/transport "${rpc}/transport/(wire/|server/)?[a-z_]+\\.h" "${contracts}" ${transport_protos})
allow(${rpc}/generator "${rpc}/generator/[a-z_]+\\.h" "${rpc}/version\\.h")
allow(gen/${rpc}/proto/rpc/browser "rpc/browser/[a-z_]+\\.(rpc|client)\\.h" "${contracts}" "${protos}"
      "${rpc}/stream/[a-z_]+\\.h" "${rpc}/transport/typed_client\\.h")
