#include "engines/chromium/drags.h"

#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include "absl/log/log.h"
#include "google/protobuf/repeated_ptr_field.h"

#include "engines/chromium/input_commands.h"
#include "zimbrel/src/core/common/rpc/printable.h"

namespace chromium {
namespace {

using Items = google::protobuf::RepeatedPtrField<rpc::DragItem>;

constexpr std::uint32_t kAllOperations = rpc::DRAG_OPERATION_COPY |
                                         rpc::DRAG_OPERATION_LINK |
                                         rpc::DRAG_OPERATION_MOVE;

rpc::PointDip PointAt(double x, double y) {
  rpc::PointDip point;
  point.set_x(x);
  point.set_y(y);
  return point;
}

// Where a drag goes that leaves the view.
rpc::PointDip Outside() { return PointAt(-50, -50); }

// Where the page itself takes a drop whose target is elsewhere.
rpc::PointDip Somewhere() { return PointAt(1, 1); }

Json DataOf(const Items& items, std::uint32_t allowed_operations) {
  Json texts = Json::array();
  Json files = Json::array();
  for (const rpc::DragItem& item : items) {
    if (item.has_text()) {
      Json text = {{"mimeType", std::string(item.text().mime_type())},
                   {"data", std::string(item.text().value())}};
      if (!item.text().base_url().empty())
        text["baseURL"] = std::string(item.text().base_url());
      texts.push_back(std::move(text));
    } else if (item.has_file()) {
      // The engine takes one that is not there for an empty one.
      const std::filesystem::path path{std::string(item.file().path())};
      std::error_code error;
      if (path.is_absolute() && std::filesystem::exists(path, error)) {
        files.push_back(path.string());
      } else {
        LOG(WARNING) << "not dragged, since it is not there: "
                     << orvane::Printable(path.string());
      }
    } else if (item.has_binary()) {
      LOG(WARNING) << "not dragged, since it is in no file: "
                   << orvane::Printable(std::string(item.binary().mime_type()));
    }
  }
  return {{"items", std::move(texts)},
          {"files", std::move(files)},
          {"dragOperationsMask", allowed_operations}};
}

// What the page drags, as a host takes it; none if it is too much. Without
// files: which there are on the disk is not the page's to say.
Items ItemsOf(const Json& data) {
  constexpr std::size_t kMaxItems = 100;
  constexpr std::size_t kMaxBytes = 2 << 20;
  const Json::array_t& told = List(data, "items");
  Items items;
  std::size_t bytes = 0;
  for (const Json& item : told) {
    if (Text(item, "mimeType").empty()) continue;
    rpc::DragText& text = *items.Add()->mutable_text();
    text.set_mime_type(Text(item, "mimeType"));
    text.set_value(Text(item, "data"));
    text.set_base_url(Text(item, "baseURL"));
    bytes += text.ByteSizeLong();
    if (told.size() <= kMaxItems && bytes <= kMaxBytes) continue;
    LOG_EVERY_N_SEC(WARNING, 10)
        << "a page drags " << told.size() << " items, " << bytes
        << " bytes or more, and cannot drop them elsewhere; the limits are "
        << kMaxItems << " and " << kMaxBytes;
    return {};
  }
  return items;
}

rpc::DragOperation OperationOf(const std::string& effect) {
  if (effect == "copy") return rpc::DRAG_OPERATION_COPY;
  if (effect == "link") return rpc::DRAG_OPERATION_LINK;
  if (effect == "move") return rpc::DRAG_OPERATION_MOVE;
  return rpc::DRAG_OPERATION_UNSPECIFIED;
}

const char* EffectOf(rpc::DragOperation operation) {
  if (operation == rpc::DRAG_OPERATION_LINK) return "link";
  return operation == rpc::DRAG_OPERATION_MOVE ? "move" : "copy";
}

}  // namespace

Drags::Drags(BrowserId browser, rpc::BrowserWidgetRpc* service, Send send,
             DropSilently drop_silently)
    : browser_(std::move(browser)),
      service_(service),
      send_(std::move(send)),
      drop_silently_(std::move(drop_silently)) {}

void Drags::Begin(const Json& data, const rpc::PointDip& position) {
  if (has_begun_in_page()) return;
  own_data_ = data;
  is_own_dropped_ = false;
  // All of them, in the engine's words.
  const double mask = Number(data, "dragOperationsMask");
  allowed_operations_ = mask < 0
                            ? kAllOperations
                            : static_cast<std::uint32_t>(mask) & kAllOperations;
  own_data_["dragOperationsMask"] = allowed_operations_;
  data_ = own_data_;
  told_.reset();
  SendAt("dragEnter", data_, position);
  SendAt("dragOver", data_, position);
  rpc::DragCursorUpdated begun;
  *begun.mutable_items() = ItemsOf(data);
  if (!begun.items().empty()) begun.set_allowed_operations(allowed_operations_);
  if (Tell(std::move(begun)) > 0) return;
  // Nobody will drag it, and the page takes no clicks while it is dragged.
  SendAt("dragCancel", data_, position);
  Forget();
}

void Drags::Forget() {
  data_ = Json();
  own_data_ = Json();
}

void Drags::Enter(const rpc::DragEnterRequest& event) {
  if (has_begun_in_page()) {
    data_ = own_data_;
  } else {
    allowed_operations_ = event.allowed_operations();
    data_ = DataOf(event.items(), allowed_operations_);
  }
  told_.reset();
  SendAt("dragEnter", data_, event.position(), event.input().modifiers());
  // The first event of the page's that says what a drop would do.
  SendAt("dragOver", data_, event.position(), event.input().modifiers());
}

void Drags::Over(const rpc::DragOverRequest& event) {
  if (!has_begun_in_page()) {
    allowed_operations_ = event.allowed_operations();
    data_["dragOperationsMask"] = allowed_operations_;
  }
  // Twice, since the first one over another element only enters that.
  for (int i = 0; i < 2; ++i)
    SendAt("dragOver", data_, event.position(), event.input().modifiers());
}

void Drags::Leave() {
  if (!has_begun_in_page()) {
    Cancel();
    return;
  }
  SendAt("dragOver", data_, Outside());
  data_ = Json();
}

void Drags::Cancel() {
  const Json& data = data_.is_null() ? own_data_ : data_;
  if (data.is_null()) return;
  SendAt("dragOver", data,
         Outside());  // dragCancel alone tells the page nothing.
  SendAt("dragCancel", data, Outside());
  Forget();
}

void Drags::Drop(const rpc::DragDropRequest& event) {
  if (has_begun_in_page()) {
    is_own_dropped_ = true;
  } else {
    allowed_operations_ = event.allowed_operations();
    data_ = DataOf(event.items(), allowed_operations_);
  }
  SendAt("drop", data_, event.position(), event.input().modifiers());
  data_ = Json();
}

void Drags::End(const rpc::DragEndRequest& event) {
  if (!has_begun_in_page()) return;  // The page went meanwhile.
  Json data = std::move(own_data_);
  Forget();
  if (is_own_dropped_) return;
  if (event.operation() == rpc::DRAG_OPERATION_UNSPECIFIED) {
    SendAt("dragCancel", data, Outside());
    return;
  }
  // The engine has no other way to tell the page what the target did.
  drop_silently_(EffectOf(event.operation()), [this, data = std::move(data)] {
    for (const char* const type : {"dragEnter", "dragOver", "drop"})
      SendAt(type, data, Somewhere());
  });
}

void Drags::SendAt(const char* type, const Json& data,
                   const rpc::PointDip& position, std::uint32_t modifiers) {
  send_({{"type", type},
         {"x", EngineCoordinate(position.x())},
         {"y", EngineCoordinate(position.y())},
         {"data", data},
         {"modifiers", EngineModifiers(modifiers)}});
}

void Drags::TakeEffect(const std::string& effect) {
  if (data_.is_null()) return;
  rpc::DragOperation operation = OperationOf(effect);
  if ((operation & allowed_operations_) == 0)
    operation = rpc::DRAG_OPERATION_UNSPECIFIED;
  if (std::exchange(told_, operation) == operation) return;
  rpc::DragCursorUpdated event;
  event.set_operation(operation);
  Tell(std::move(event));
}

std::size_t Drags::Tell(rpc::DragCursorUpdated event) {
  *event.mutable_browser_id() = browser_;
  event.set_began_in_page(has_begun_in_page());
  return service_->WhenDragCursorUpdated()(browser_, event);
}

}  // namespace chromium
