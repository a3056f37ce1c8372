// All that a program needs to serve a service, beside the generated header: the
// loop, the server and its socket, publishing and calling.

#ifndef ORVANE_SERVER_H_
#define ORVANE_SERVER_H_

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/transport/client_watch.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

#endif  // ORVANE_SERVER_H_
