# cmake -DROOT=dir -P check_layers.cmake
#
# Who may include whom. An arrow that is not listed here is a mistake in the
# architecture, so it fails a test, and so does a folder that is not listed.
# Tests, benchmarks and fixtures beside them may include anything.

cmake_policy(VERSION 3.25)

set(listed_folders "")

function(allow folder)
  list(JOIN ARGN "|" allowed)
  list(APPEND listed_folders "${folder}")
  set(listed_folders "${listed_folders}" PARENT_SCOPE)
  file(GLOB files RELATIVE "${ROOT}" "${ROOT}/${folder}/*.h" "${ROOT}/${folder}/*.cc")
  list(FILTER files EXCLUDE REGEX "_(test|benchmark|fixture)\\.(h|cc)$")
  if(NOT files)
    message(SEND_ERROR "${folder} holds no sources")
  endif()
  foreach(file IN LISTS files)
    # Only up to the first namespace: further below, the generator's sources contain
    # the includes of its output.
    file(READ "${ROOT}/${file}" text)
    string(REGEX REPLACE "\nnamespace .*" "" text "${text}")
    # Ours, however they are written: in angle brackets, or from where the file is.
    string(REGEX MATCHALL "#include ([\"<](${ours})/[^\">]+|\"[.][^\"]+|\"[^/\".]+\\.h)" lines "${text}")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "#include [\"<]" "" included "${line}")
      if(NOT included MATCHES "^(${allowed})$")
        message(SEND_ERROR "${file} must not include ${included}")
      endif()
    endforeach()
  endforeach()
endfunction()

set(ours "zimbrel|rpc|orvane|host|engines|examples|tools|gen|benchmarks|fuzz|docs|building")

set(rpc "zimbrel/src/core/common/rpc")
set(logging "zimbrel/src/core/common/logging/[a-z_]+\\.h")
set(contracts "${rpc}/[a-z_]+\\.h")
set(protos "rpc/[a-z_/]+\\.pb\\.h")
set(transport_protos "rpc/transport/[a-z_]+\\.pb\\.h" "rpc/event_subscription\\.pb\\.h"
    "rpc/stream_options\\.pb\\.h")
set(generated "rpc/browser/[a-z_]+\\.(rpc|client)\\.h")
# The headers that applications include, and the parts of them that a transport may
# include too.
set(server_api "orvane/server\\.h" "${rpc}/stream/(call|publish)\\.h"
    "${rpc}/transport/(client_watch|in_process|server_[a-z]+|socket_server|unix_socket)\\.h")
set(client_api "orvane/client\\.h"
    "${rpc}/transport/(client_stream|in_process|responder|socket_client|subscriptions|typed_client|unix_socket)\\.h")
set(api "${server_api}" "${client_api}" "${rpc}/metrics/[a-z_]+\\.h" "${contracts}" "${protos}" "${generated}" "${logging}")

# The runtime.
allow(zimbrel/src/core/common/logging "${logging}")
allow(${rpc} "${contracts}" "${rpc}/loop/[a-z_]+\\.h" "rpc/transport/stream_message.pb.h" "rpc/event_subscription.pb.h"
      "rpc/browser/browser_id.pb.h")
allow(${rpc}/loop "${rpc}/loop/[a-z_]+\\.h" "${rpc}/(event_loop|mutex|owned_descriptor)\\.h")
allow(${rpc}/main_loops "${rpc}/(event_loop|owned_descriptor)\\.h")
allow(${rpc}/stream "${rpc}/stream/[a-z_]+\\.h" "${contracts}" "${protos}" "${logging}")
allow(${rpc}/transport/wire "${rpc}/transport/wire/[a-z_]+\\.h" "${rpc}/transport/frame_limits\\.h"
      "${contracts}" ${transport_protos})
allow(${rpc}/transport/server "${rpc}/transport/(server|wire)/[a-z_]+\\.h"
      "${rpc}/transport/(frame_limits|responsiveness|server_counters|server_limits)\\.h" "${contracts}"
      ${transport_protos})
allow(${rpc}/transport/client "${rpc}/transport/(client|wire)/[a-z_]+\\.h"
      "${rpc}/transport/(frame_limits|client_stream|responsiveness)\\.h" "${contracts}" ${transport_protos})
allow(${rpc}/transport "${rpc}/transport/((client|server|wire)/)?[a-z_]+\\.h" "${contracts}"
      ${transport_protos})
allow(${rpc}/metrics "${rpc}/metrics/[a-z_]+\\.h" "${contracts}")
allow(orvane "${contracts}" ${server_api} ${client_api})

# Generated code, and the generator.
allow(${rpc}/generator "${rpc}/generator/[a-z_]+\\.h" "${rpc}/(method_kind|version)\\.h")
allow(gen/${rpc}/proto/rpc/browser "${generated}" "${contracts}" "${protos}"
      "${rpc}/stream/[a-z_]+\\.h" "${rpc}/transport/typed_client\\.h")

# Above the generated client, and without any toolkit.
allow(host "host/[a-z_]+\\.h" "rpc/browser/[a-z_]+\\.client\\.h" "${contracts}" "${protos}"
      ${client_api})

# Programs, which include only public headers of the runtime; their tests may
# include more.
allow(engines/chromium "engines/chromium/[a-z0-9_]+\\.h" "host/[a-z_]+\\.h" "examples/widget_server/[a-z0-9_]+\\.h" ${api})
allow(examples "host/[a-z_]+\\.h" "${rpc}/main_loops/[a-z_]+\\.h" ${api})
allow(examples/widget_server "examples/widget_server/[a-z0-9_]+\\.h" ${api})
allow(examples/host "examples/host/[a-z_]+\\.h" "host/[a-z_]+\\.h" ${api})
allow(examples/gtk_host "examples/gtk_host/[a-z_]+\\.h" "host/[a-z_]+\\.h" "${rpc}/main_loops/[a-z_]+\\.h" ${api})
allow(examples/stranger ${api})
allow(packaging/tests/subproject.project ${api})
allow(examples/main_loops "${rpc}/main_loops/[a-z_]+\\.h" ${api})
allow(docs/examples ${api} "docs/examples/[a-z_.]+\\.h" "host/[a-z_]+\\.h")
# It reads the frames that others send each other.
allow(tools/widgetctl "tools/widgetctl/[a-z_]+\\.h" "${rpc}/transport/wire/framing\\.h" ${api})
allow(benchmarks "benchmarks/[a-z_.]+\\.h" ${api})
allow(benchmarks/transport "benchmarks/transport/[a-z_.]+\\.h" "${rpc}/main_loops/[a-z_]+\\.h" ${api})
allow(benchmarks/grpc "benchmarks/(transport|grpc)/[a-z_.]+\\.h" "rpc/[a-z_/]+\\.h")
allow(benchmarks/capnp "benchmarks/(transport|capnp)/[a-z_.]+\\.h")
allow(benchmarks/sdbus "benchmarks/transport/[a-z_.]+\\.h")

# Code that only tests use.
allow(${rpc}/testing "${rpc}/testing/[a-z_]+\\.h" "${rpc}/stream/[a-z_]+\\.h"
      "${rpc}/transport/wire/[a-z_]+\\.h" ${api} "${rpc}/transport/frame_limits\\.h")
allow(fuzz "fuzz/[a-z_]+\\.h" "${rpc}/testing/[a-z_]+\\.h" "${rpc}/stream/[a-z_]+\\.h"
      "${rpc}/transport/wire/[a-z_]+\\.h" "examples/widget_server/[a-z_]+\\.h"
      "tools/widgetctl/[a-z_]+\\.h" ${api})

# A folder that has only tests need not be listed.
file(GLOB_RECURSE all RELATIVE "${ROOT}" "${ROOT}/*.h" "${ROOT}/*.cc")
list(FILTER all EXCLUDE REGEX "^(build|cmake|\\.git)/|/testdata/|_(test|benchmark|fixture)\\.(h|cc)$|/node_modules/")
foreach(file IN LISTS all)
  cmake_path(GET file PARENT_PATH folder)
  if(NOT folder IN_LIST listed_folders)
    message(SEND_ERROR "${folder} is not listed: nothing says what ${file} may include")
  endif()
endforeach()
