// All that a program needs to use a service, beside the generated client's
// header: the loop, the connection and its socket, calls and streams, and how
// to print what comes from the other end.

#ifndef ORVANE_CLIENT_H_
#define ORVANE_CLIENT_H_

#include "zimbrel/src/core/common/rpc/calling.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/printable.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/responder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

#endif  // ORVANE_CLIENT_H_
