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

// Where a drag goes that leaves the view.
constexpr int kOutside = -50;

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

rpc::DragOperation OperationOf(const std::string& effect) {
  if (effect == "copy") return rpc::DRAG_OPERATION_COPY;
  if (effect == "link") return rpc::DRAG_OPERATION_LINK;
  if (effect == "move") return rpc::DRAG_OPERATION_MOVE;
  return rpc::DRAG_OPERATION_UNSPECIFIED;
}

}  // namespace

Drags::Drags(BrowserId browser, rpc::BrowserWidgetRpc* service, Send send)
    : browser_(std::move(browser)), service_(service), send_(std::move(send)) {}

void Drags::Enter(const rpc::DragEnterRequest& event) {
  allowed_operations_ = event.allowed_operations();
  data_ = DataOf(event.items(), allowed_operations_);
  told_.reset();
  SendAt("dragEnter", event.position(), event.input().modifiers());
  // The first event of the page's that says what a drop would do.
  SendAt("dragOver", event.position(), event.input().modifiers());
}

void Drags::Over(const rpc::DragOverRequest& event) {
  allowed_operations_ = event.allowed_operations();
  data_["dragOperationsMask"] = allowed_operations_;
  // Twice, since the first one over another element only enters that.
  for (int i = 0; i < 2; ++i)
    SendAt("dragOver", event.position(), event.input().modifiers());
}

void Drags::Leave() {
  if (data_.is_null()) return;
  rpc::PointDip outside;
  outside.set_x(kOutside);
  outside.set_y(kOutside);
  SendAt("dragOver", outside, 0);  // dragCancel alone tells the page nothing.
  SendAt("dragCancel", outside, 0);
  data_ = Json();
}

void Drags::Drop(const rpc::DragDropRequest& event) {
  allowed_operations_ = event.allowed_operations();
  data_ = DataOf(event.items(), allowed_operations_);
  SendAt("drop", event.position(), event.input().modifiers());
  data_ = Json();
}

void Drags::SendAt(const char* type, const rpc::PointDip& position,
                   std::uint32_t modifiers) {
  send_({{"type", type},
         {"x", position.x()},
         {"y", position.y()},
         {"data", data_},
         {"modifiers", EngineModifiers(modifiers)}});
}

void Drags::TakeEffect(const std::string& effect) {
  if (data_.is_null()) return;
  rpc::DragOperation operation = OperationOf(effect);
  if ((operation & allowed_operations_) == 0)
    operation = rpc::DRAG_OPERATION_UNSPECIFIED;
  if (told_ == operation) return;
  told_ = operation;
  rpc::DragCursorUpdated event;
  *event.mutable_browser_id() = browser_;
  event.set_operation(operation);
  service_->WhenDragCursorUpdated()(browser_, event);
}

}  // namespace chromium
