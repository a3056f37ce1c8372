#include "examples/widget_server/page.h"

#include <algorithm>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

#include "examples/widget_server/x11.h"

namespace widget_server {
namespace {

constexpr char kOrigin[] = "https://example.com";
constexpr char kLanguage[] = "en";
constexpr std::uint32_t kWindowsTab = 9;
constexpr char kEnter[] = "\r";

BrowserId IdOf(std::uint64_t browser) {
  BrowserId id;
  id.set_value(browser);
  return id;
}

bool IsTab(const rpc::KeyPressRequest& event) {
  constexpr std::uint32_t kShortcut = rpc::MODIFIER_FLAG_ALT |
                                      rpc::MODIFIER_FLAG_CONTROL |
                                      rpc::MODIFIER_FLAG_META;
  return (event.key().key() == "Tab" ||
          event.key().windows_key_code() == kWindowsTab) &&
         (event.input().modifiers() & kShortcut) == 0;
}

rpc::FocusDirection DirectionOf(const rpc::KeyPressRequest& tab) {
  return (tab.input().modifiers() & rpc::MODIFIER_FLAG_SHIFT) != 0
             ? rpc::FOCUS_DIRECTION_BACKWARD
             : rpc::FOCUS_DIRECTION_FORWARD;
}

// The element that gets the focus when it enters the page in this direction.
ElementId FirstElement(rpc::FocusDirection direction) {
  return direction == rpc::FOCUS_DIRECTION_BACKWARD ? kFocusOrder.back()
                                                    : kFocusOrder.front();
}

}  // namespace

Page::Page(std::uint64_t browser, rpc::BrowserWidgetRpc* service)
    : browser_(IdOf(browser)),
      service_(service),
      frames_(std::make_shared<FrameSender>(browser_, service)) {}

rpc::WindowHandle Page::window() const {
  return EngineWindow(browser_.value());
}

rpc::AccessibilityToken Page::root_node() const {
  return RootNode(browser_.value());
}

bool Page::IsDraggableAt(const rpc::PointDip& position) const {
  return GetElement(ElementId::kPicture).place.Contains(position);
}

void Page::SetViewport(const Viewport& viewport) {
  viewport_ = viewport;
  if (!viewport_.has_drag_begun_in_page) is_own_drag_announced_ = false;
  if (viewport_.is_attached) return;
  CloseList(std::nullopt);
  ShowTooltip(nullptr);
  pressed_.reset();
  cursor_ = rpc::CURSOR_TYPE_DEFAULT;
}

PageLook Page::look() const {
  return {text_, button_label_, option_,
          viewport_.has_focus ? focused_ : std::nullopt,
          HasCaret() && !orvane::IsServed<rpc::UpdateLayer>(browser_)};
}

bool Page::HasCaret() const {
  return viewport_.has_focus && focused_ == ElementId::kField;
}

void Page::Draw() {
  Scene scene;
  if (viewport_.is_drawn_off_screen) {
    const double scale_factor = viewport_.scale_factor;
    scene.view =
        DrawPage(look(), viewport_.width, viewport_.height, scale_factor);
    if (open_list_.has_value() && !open_list_->is_shown_by_host) {
      scene.popup = {open_list_->id, OpenListPlace(),
                     DrawOpenList(option_, scale_factor)};
    }
    if (HasCaret() && orvane::IsServed<rpc::UpdateLayer>(browser_)) {
      scene.caret = {CaretPlace(CharactersIn(text_)), DrawCaret(scale_factor)};
    }
  }
  frames_->Show(std::move(scene));
}

template <typename T, typename Then>
void Page::Ask(const orvane::Caller<T>& caller, orvane::CallOf<T> call,
               Then then) {
  caller(browser_, std::move(call),
         [weak = weak_from_this(),
          then](const absl::StatusOr<orvane::ResponseOf<T>>& response) {
           if (const auto self = weak.lock()) {
             then(*self, response.ok() ? &*response : nullptr);
             self->Draw();
           }
         },
         {});
}

template <typename T>
T Page::New() const {
  T event;
  *event.mutable_browser_id() = browser_;
  return event;
}

// The pointer

void Page::ShowCursor(const Element* under_pointer) {
  const rpc::CursorType cursor = under_pointer != nullptr
                                     ? under_pointer->cursor
                                     : rpc::CURSOR_TYPE_DEFAULT;
  if (std::exchange(cursor_, cursor) == cursor) return;
  auto event = New<rpc::CursorChanged>();
  event.mutable_cursor()->set_type(cursor);
  service_->WhenCursorChanged()(browser_, event);
}

void Page::ShowTooltip(const Element* under_pointer) {
  const absl::string_view tooltip =
      under_pointer != nullptr ? under_pointer->tooltip : absl::string_view();
  if (std::exchange(tooltip_, tooltip) == tooltip) return;
  auto event = New<rpc::TooltipChanged>();
  if (!tooltip.empty()) {
    event.set_text(std::string(tooltip));
    event.set_direction(rpc::TEXT_DIRECTION_LEFT_TO_RIGHT);
    *event.mutable_anchor() = under_pointer->place.ToProto();
  }
  service_->WhenTooltipChanged()(browser_, event);
}

void Page::PointAt(const rpc::PointDip& position) {
  // Elements below an open list are not under the pointer.
  const bool is_on_list = open_list_.has_value() &&
                          !open_list_->is_shown_by_host &&
                          OptionAt(position).has_value();
  const Element* const element = is_on_list ? nullptr : ElementAt(position);
  ShowCursor(element);
  ShowTooltip(element);
}

void Page::MouseEnter(const rpc::MouseEnterRequest& event) {
  PointAt(event.pointer().position());
}

void Page::MouseMove(const rpc::MouseMoveRequest& event) {
  PointAt(event.pointer().position());
}

void Page::MouseExit(const rpc::MouseExitRequest&) {
  // Outside the view the host chooses the cursor. cursor_ stays, since it is
  // the one that was last sent to the host.
  ShowTooltip(nullptr);
}

void Page::MousePress(const rpc::MousePressRequest& event) {
  pressed_.reset();
  if (is_dialog_open_) return;
  const bool is_primary = event.button() == rpc::MOUSE_BUTTON_PRIMARY;
  const rpc::PointDip& position = event.pointer().position();
  if (open_list_.has_value() && !open_list_->is_shown_by_host) {
    // The press has no other effect.
    CloseList(is_primary ? OptionAt(position) : std::nullopt);
    return;
  }
  if (!is_primary) return;
  const Element* const element = ElementAt(position);
  if (element != nullptr) pressed_ = element->id;
  focused_.reset();
  if (element != nullptr && IsFocusable(element->id)) focused_ = element->id;
}

void Page::MouseRelease(const rpc::MouseReleaseRequest& event) {
  if (event.button() != rpc::MOUSE_BUTTON_PRIMARY) return;
  const std::optional<ElementId> pressed =
      std::exchange(pressed_, std::nullopt);
  const Element* const element = ElementAt(event.pointer().position());
  if (event.click_count() > 0 && element != nullptr && element->id == pressed)
    Click(element->id);
}

void Page::Click(ElementId element) {
  if (element == ElementId::kButton) OpenDialog();
  if (element == ElementId::kList) OpenTheList();
}

// The dialog and the list

void Page::OpenDialog() {
  rpc::CreateWebDialogCall dialog;
  dialog.set_origin(kOrigin);
  dialog.set_direction(rpc::TEXT_DIRECTION_LEFT_TO_RIGHT);
  dialog.mutable_prompt()->set_message("What is your name?");
  is_dialog_open_ = true;
  Ask<rpc::CreateWebDialog>(
      service_->OnCreateWebDialog(), std::move(dialog),
      [](Page& page, const rpc::CreateWebDialogResponse* answer) {
        page.is_dialog_open_ = false;
        if (answer == nullptr || !answer->accepted()) return;
        page.button_label_ = answer->text();
        page.Announce(Region::kDialog, absl::StrCat("Hello, ", answer->text()),
                      rpc::ARIA_LIVE_POLITENESS_ASSERTIVE,
                      rpc::ARIA_RELEVANT_FLAG_ADDITIONS);
      });
}

void Page::OpenTheList() {
  if (open_list_.has_value()) return;
  const bool is_shown_by_host = orvane::IsServed<rpc::ShowDropdown>(browser_);
  open_list_ = {++last_list_, is_shown_by_host};
  const rpc::RectDip anchor = GetElement(ElementId::kList).place.ToProto();

  auto created = New<rpc::DropDownCreated>();
  created.set_popup_id(last_list_);
  *created.mutable_anchor() = anchor;
  if (!is_shown_by_host) *created.mutable_bounds() = OpenListPlace().ToProto();
  service_->WhenDropDownCreated()(browser_, created);
  if (!is_shown_by_host) return;

  rpc::ShowDropdownCall call;
  call.set_popup_id(last_list_);
  *call.mutable_anchor() = anchor;
  for (const absl::string_view option : kOptions) {
    rpc::DropDownItem* const item = call.add_items();
    item->set_type(rpc::DROP_DOWN_ITEM_TYPE_OPTION);
    item->set_label(std::string(option));
  }
  call.mutable_items(static_cast<int>(option_))->set_is_selected(true);
  call.set_selected_index(static_cast<std::uint32_t>(option_));
  call.set_font_size_dip(kFontSize);
  call.set_item_height_dip(kOptionHeight);
  Ask<rpc::ShowDropdown>(
      service_->OnShowDropdown(), std::move(call),
      [id = last_list_](Page& page, const rpc::ShowDropdownResponse* answer) {
        // The list may have been closed together with its view.
        if (!page.open_list_.has_value() || page.open_list_->id != id) return;
        std::optional<std::size_t> choice;
        if (answer != nullptr && answer->accepted() &&
            answer->selected_indices_size() == 1 &&
            answer->selected_indices(0) < kOptions.size()) {
          choice = answer->selected_indices(0);
        }
        page.CloseList(choice);
      });
}

void Page::CloseList(std::optional<std::size_t> choice) {
  if (!open_list_.has_value()) return;
  auto deleted = New<rpc::DropDownDeleted>();
  deleted.set_popup_id(open_list_->id);
  open_list_.reset();
  service_->WhenDropDownDeleted()(browser_, deleted);
  if (!choice.has_value()) return;
  option_ = *choice;
  Announce(Region::kChoice, kOptions[option_], rpc::ARIA_LIVE_POLITENESS_POLITE,
           rpc::ARIA_RELEVANT_FLAG_TEXT);
}

// Text

void Page::KeyType(const rpc::KeyTypeRequest& event) {
  if (!viewport_.has_focus || is_dialog_open_ || focused_ != ElementId::kField)
    return;
  if (event.text() == kEnter) {
    SendText();
  } else {
    InsertText(event.text());
  }
}

void Page::SendText() {
  if (text_.empty()) return;
  text_.clear();
  Announce(Region::kText, "", rpc::ARIA_LIVE_POLITENESS_POLITE,
           rpc::ARIA_RELEVANT_FLAG_REMOVALS);
}

void Page::InsertText(absl::string_view text) {
  const std::size_t before = text_.size();
  std::size_t characters = CharactersIn(text_);
  for (const char byte : text) {
    const auto value = static_cast<unsigned char>(byte);
    if (value < 0x20 || value == 0x7F) continue;  // A control character.
    characters += CharactersIn({&byte, 1});
    if (characters > kFieldCharacters) break;
    text_ += byte;
  }
  if (text_.size() == before) return;
  Announce(Region::kText, text_, rpc::ARIA_LIVE_POLITENESS_POLITE,
           rpc::ARIA_RELEVANT_FLAG_TEXT);
}

void Page::Announce(Region region, absl::string_view text,
                    rpc::AriaLivePoliteness politeness,
                    rpc::AriaRelevantFlag relevant) {
  if (!viewport_.is_accessibility_on) return;
  auto event = New<rpc::AriaLiveRegionChanged>();
  event.set_region_id(static_cast<std::uint64_t>(region));
  event.set_text(std::string(text));
  event.set_politeness(politeness);
  event.set_priority(rpc::ARIA_LIVE_PRIORITY_NORMAL);
  event.set_is_atomic(true);
  event.set_relevant(relevant);
  event.set_language(kLanguage);
  service_->WhenAriaLiveRegionChanged()(browser_, event);
}

// The focus

void Page::Focus(const rpc::FocusRequest& event) {
  if (event.reason() == rpc::FOCUS_REASON_TAB)
    FocusElement(FirstElement(rpc::FOCUS_DIRECTION_FORWARD));
  if (event.reason() == rpc::FOCUS_REASON_BACK_TAB)
    FocusElement(FirstElement(rpc::FOCUS_DIRECTION_BACKWARD));
}

void Page::KeyPress(const rpc::KeyPressRequest& event) {
  if (viewport_.has_focus && !is_dialog_open_ && IsTab(event))
    MoveFocus(DirectionOf(event));
}

void Page::FocusElement(ElementId element) {
  focused_ = element;
  if (!viewport_.is_accessibility_on) return;
  const Element& target = GetElement(element);
  rpc::AccessibilityRequestFocusCall call;
  *call.mutable_node() = ElementNode(browser_.value(), target.name);
  *call.mutable_bounds() = target.place.ToProto();
  Ask<rpc::AccessibilityRequestFocus>(
      service_->OnAccessibilityRequestFocus(), std::move(call),
      // The keyboard focus does not depend on the answer.
      [](Page&, const rpc::AccessibilityRequestFocusResponse*) {});
}

void Page::MoveFocus(rpc::FocusDirection direction) {
  if (is_focus_offered_) return;
  if (!focused_.has_value()) {
    FocusElement(FirstElement(direction));
    return;
  }
  const auto at = std::find(kFocusOrder.begin(), kFocusOrder.end(), *focused_);
  if (direction == rpc::FOCUS_DIRECTION_FORWARD &&
      at + 1 != kFocusOrder.end()) {
    FocusElement(*(at + 1));
  } else if (direction == rpc::FOCUS_DIRECTION_BACKWARD &&
             at != kFocusOrder.begin()) {
    FocusElement(*(at - 1));
  } else {
    LeavePage(direction);
  }
}

void Page::LeavePage(rpc::FocusDirection direction) {
  rpc::TakeFocusCall call;
  call.set_direction(direction);
  is_focus_offered_ = true;
  Ask<rpc::TakeFocus>(
      service_->OnTakeFocus(), std::move(call),
      [direction](Page& page, const rpc::TakeFocusResponse* answer) {
        page.is_focus_offered_ = false;
        if (answer != nullptr && answer->taken()) {
          page.focused_.reset();
        } else {
          page.FocusElement(FirstElement(direction));
        }
      });
}

// Drags

void Page::MouseDrag(const rpc::MouseDragRequest& event) {
  if (!viewport_.has_drag_begun_in_page || is_own_drag_announced_) return;
  is_own_drag_announced_ = true;
  pressed_.reset();
  rpc::DragCursorUpdated begun;
  rpc::DragText& text = *begun.add_items()->mutable_text();
  text.set_mime_type("text/plain");
  text.set_value(std::string(GetElement(ElementId::kPicture).name));
  begun.set_allowed_operations(rpc::DRAG_OPERATION_COPY);
  drag_operation_ =
      OperationAt(event.pointer().position(), begun.allowed_operations());
  TellOfDrag(std::move(begun));
}

void Page::DragEnter(const rpc::DragEnterRequest& event) {
  drag_operation_ = OperationAt(event.position(), event.allowed_operations());
  TellOfDrag({});
}

void Page::DragOver(const rpc::DragOverRequest& event) {
  const rpc::DragOperation operation =
      OperationAt(event.position(), event.allowed_operations());
  if (std::exchange(drag_operation_, operation) != operation) TellOfDrag({});
}

void Page::DragDrop(const rpc::DragDropRequest& event) {
  if (drag_operation_ != rpc::DRAG_OPERATION_COPY) return;
  if (viewport_.has_drag_begun_in_page)
    InsertText(GetElement(ElementId::kPicture).name);
  for (const rpc::DragItem& item : event.items()) {
    if (item.text().mime_type() == "text/plain")
      InsertText(item.text().value());
  }
}

rpc::DragOperation Page::OperationAt(const rpc::PointDip& position,
                                     std::uint32_t allowed_operations) const {
  const Element* const element = ElementAt(position);
  return element != nullptr && element->id == ElementId::kField &&
                 (allowed_operations & rpc::DRAG_OPERATION_COPY) != 0
             ? rpc::DRAG_OPERATION_COPY
             : rpc::DRAG_OPERATION_UNSPECIFIED;
}

void Page::TellOfDrag(rpc::DragCursorUpdated event) {
  *event.mutable_browser_id() = browser_;
  event.set_operation(drag_operation_);
  event.set_began_in_page(viewport_.has_drag_begun_in_page);
  service_->WhenDragCursorUpdated()(browser_, event);
}

}  // namespace widget_server
