// The messages, with the same content for every stack that carries protobuf.

#ifndef BENCHMARKS_TRANSPORT_MESSAGES_H_
#define BENCHMARKS_TRANSPORT_MESSAGES_H_

#include <string>

#include "benchmarks/transport/peer.pb.h"

namespace benchmarks {

// The only browser.
inline BrowserId Browser() {
  BrowserId browser;
  browser.set_value(1);
  return browser;
}

inline rpc::CursorChanged CursorEvent() {
  rpc::CursorChanged event;
  *event.mutable_browser_id() = Browser();
  event.mutable_cursor()->set_type(rpc::CURSOR_TYPE_POINTER);
  return event;
}

// The caller sets its time.
inline rpc::MouseMoveRequest MouseMove() {
  rpc::MouseMoveRequest move;
  *move.mutable_browser_id() = Browser();
  move.mutable_pointer()->mutable_position()->set_x(321.5);
  move.mutable_pointer()->mutable_position()->set_y(123.25);
  move.mutable_pointer()->mutable_screen_position()->set_x(1321.5);
  move.mutable_pointer()->mutable_screen_position()->set_y(1123.25);
  return move;
}

}  // namespace benchmarks

#endif  // BENCHMARKS_TRANSPORT_MESSAGES_H_
