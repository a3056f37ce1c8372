#include "engines/chromium/drop_downs.h"

#include <algorithm>
#include <utility>

#include "absl/status/statusor.h"

namespace chromium {
namespace {

constexpr std::size_t kMaxItems = 10'000;

rpc::DropDownItemType TypeOf(const std::string& type) {
  if (type == "group") return rpc::DROP_DOWN_ITEM_TYPE_GROUP;
  if (type == "separator") return rpc::DROP_DOWN_ITEM_TYPE_SEPARATOR;
  return rpc::DROP_DOWN_ITEM_TYPE_OPTION;
}

rpc::ShowDropdownCall CallFor(const Json& report) {
  rpc::ShowDropdownCall call;
  if (const auto anchor = PlaceOf(Member(report, "anchor")))
    *call.mutable_anchor() = *anchor;
  call.set_is_right_to_left(Text(report, "direction") == "rtl");
  const double font_size = Number(report, "fontSize");
  call.set_font_size_dip(font_size > 0 ? font_size : 1);
  for (const Json& told : List(report, "items")) {
    const auto index = static_cast<std::uint32_t>(call.items_size());
    if (index == kMaxItems) break;
    rpc::DropDownItem& item = *call.add_items();
    item.set_type(TypeOf(Text(told, "type")));
    item.set_label(Text(told, "label"));
    item.set_value(Text(told, "value"));
    item.set_tooltip(Text(told, "tooltip"));
    item.set_is_disabled(Flag(told, "disabled"));
    item.set_direction(DirectionOf(Text(told, "direction")));
    const Json& group = Member(told, "group");
    if (group.is_number_unsigned() &&
        group.get<std::uint64_t>() < std::uint64_t{index}) {
      item.set_group_index(group.get<std::uint32_t>());
    }
    // A page decides what it reports, but at most one is selected.
    if (Flag(told, "selected") && !call.has_selected_index()) {
      item.set_is_selected(true);
      call.set_selected_index(index);
    }
  }
  return call;
}

bool CanBeChosen(const rpc::ShowDropdownCall& call,
                 const rpc::ShowDropdownResponse& answer) {
  if (!answer.accepted() || answer.selected_indices_size() != 1) return false;
  const std::uint32_t index = answer.selected_indices(0);
  if (index >= static_cast<std::uint32_t>(call.items_size())) return false;
  const rpc::DropDownItem& item = call.items(static_cast<int>(index));
  return item.type() == rpc::DROP_DOWN_ITEM_TYPE_OPTION && !item.is_disabled();
}

}  // namespace

std::optional<rpc::RectDip> PlaceOf(const Json& place) {
  if (!place.is_object()) return std::nullopt;
  rpc::RectDip rect;
  rect.set_x(Number(place, "x"));
  rect.set_y(Number(place, "y"));
  rect.set_width(std::max(Number(place, "width"), 0.0));
  rect.set_height(std::max(Number(place, "height"), 0.0));
  return rect;
}

rpc::TextDirection DirectionOf(const std::string& direction) {
  return direction == "rtl" ? rpc::TEXT_DIRECTION_RIGHT_TO_LEFT
                            : rpc::TEXT_DIRECTION_LEFT_TO_RIGHT;
}

DropDowns::DropDowns(BrowserId browser, rpc::BrowserWidgetRpc* service)
    : browser_(std::move(browser)), service_(service) {}

DropDowns::~DropDowns() { call_.Cancel(); }

bool DropDowns::AreServed() const {
  return orvane::IsServed<rpc::ShowDropdown>(browser_);
}

void DropDowns::Open(const Json& report, Choose choose) {
  Close();
  open_ = ++last_popup_;
  choose_ = std::move(choose);
  rpc::ShowDropdownCall call = CallFor(report);
  call.set_popup_id(open_);

  rpc::DropDownCreated event;
  *event.mutable_browser_id() = browser_;
  event.set_popup_id(open_);
  *event.mutable_anchor() = call.anchor();
  service_->WhenDropDownCreated()(browser_, event);
  call_ = service_->OnShowDropdown()(
      browser_, call,
      [this, call, popup = open_, alive = std::weak_ptr<bool>(alive_)](
          const absl::StatusOr<rpc::ShowDropdownResponse>& answer) {
        if (alive.expired() || open_ != popup) return;
        Finish(answer.ok() && CanBeChosen(call, *answer)
                   ? std::optional(answer->selected_indices(0))
                   : std::nullopt);
      },
      {});
}

void DropDowns::Close() {
  if (open_ == 0) return;
  Finish(std::nullopt);
}

void DropDowns::Finish(std::optional<std::uint32_t> index) {
  rpc::DropDownDeleted event;
  *event.mutable_browser_id() = browser_;
  event.set_popup_id(std::exchange(open_, 0));
  std::exchange(call_, {}).Cancel();
  std::exchange(choose_, nullptr)(index);
  service_->WhenDropDownDeleted()(browser_, event);
}

}  // namespace chromium
