#include "host/cursor.h"

#include "absl/strings/ascii.h"
#include "absl/strings/str_replace.h"
#include "absl/strings/string_view.h"
#include "absl/strings/strip.h"

namespace orvane::host {

std::string CursorName(rpc::CursorType type) {
  if (!rpc::CursorType_IsValid(type) || type <= rpc::CURSOR_TYPE_AUTO ||
      type == rpc::CURSOR_TYPE_CUSTOM) {
    return "default";
  }
  absl::string_view name = rpc::CursorType_Name(type);
  absl::ConsumePrefix(&name, "CURSOR_TYPE_");
  return absl::AsciiStrToLower(absl::StrReplaceAll(name, {{"_", "-"}}));
}

rpc::Cursor CursorOf(const rpc::DragCursorUpdated& event) {
  if (event.has_cursor()) return event.cursor();
  rpc::Cursor cursor;
  switch (event.operation()) {
    case rpc::DRAG_OPERATION_COPY:
      cursor.set_type(rpc::CURSOR_TYPE_COPY);
      break;
    case rpc::DRAG_OPERATION_LINK:
      cursor.set_type(rpc::CURSOR_TYPE_ALIAS);
      break;
    case rpc::DRAG_OPERATION_MOVE:
      cursor.set_type(rpc::CURSOR_TYPE_MOVE);
      break;
    default:
      cursor.set_type(rpc::CURSOR_TYPE_NO_DROP);
  }
  return cursor;
}

}  // namespace orvane::host
