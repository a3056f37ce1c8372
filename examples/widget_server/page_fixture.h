// For tests: a page, scripted hosts, and a record of the events that the page
// publishes.

#ifndef EXAMPLES_WIDGET_SERVER_PAGE_FIXTURE_H_
#define EXAMPLES_WIDGET_SERVER_PAGE_FIXTURE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "gtest/gtest.h"

#include "examples/widget_server/page.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/scripted_host.h"

namespace widget_server {

// Records events instead of publishing them; makes calls like a real service.
class RecordingService final : public rpc::BrowserWidgetRpc {
 public:
  // The events published since the last call of this function.
  std::vector<std::string> Published() { return std::exchange(published_, {}); }

  orvane::Publisher<rpc::CursorChanged> WhenCursorChanged() override {
    return Record<rpc::CursorChanged>([](const rpc::CursorChanged& event) {
      return rpc::CursorType_Name(event.cursor().type());
    });
  }
  orvane::Publisher<rpc::TooltipChanged> WhenTooltipChanged() override {
    return Record<rpc::TooltipChanged>([](const rpc::TooltipChanged& event) {
      return absl::StrCat("tooltip '", event.text(), "' at ",
                          event.anchor().x());
    });
  }
  orvane::Publisher<rpc::DropDownCreated> WhenDropDownCreated() override {
    return Record<rpc::DropDownCreated>([](const rpc::DropDownCreated& event) {
      return absl::StrCat("list ", event.popup_id(), " opens ",
                          event.has_bounds() ? "below " : "at the host's, for ",
                          event.anchor().y());
    });
  }
  orvane::Publisher<rpc::DropDownDeleted> WhenDropDownDeleted() override {
    return Record<rpc::DropDownDeleted>([](const rpc::DropDownDeleted& event) {
      return absl::StrCat("list ", event.popup_id(), " closes");
    });
  }
  orvane::Publisher<rpc::DragCursorUpdated> WhenDragCursorUpdated() override {
    return Record<rpc::DragCursorUpdated>(
        [](const rpc::DragCursorUpdated& event) {
          std::string words =
              absl::StrCat(event.began_in_page() ? "own drag, " : "drag, ",
                           rpc::DragOperation_Name(event.operation()));
          for (const rpc::DragItem& item : event.items())
            absl::StrAppend(&words, " of '", item.text().value(), "'");
          return words;
        });
  }
  orvane::Publisher<rpc::AriaLiveRegionChanged> WhenAriaLiveRegionChanged()
      override {
    return Record<rpc::AriaLiveRegionChanged>(
        [](const rpc::AriaLiveRegionChanged& event) {
          return absl::StrCat(rpc::AriaLivePoliteness_Name(event.politeness()),
                              " '", event.text(), "' ", event.relevant());
        });
  }

  orvane::Caller<rpc::CreateWebDialog> OnCreateWebDialog() override {
    return orvane::Call<rpc::CreateWebDialog>;
  }
  orvane::Caller<rpc::UpdateSurface> OnUpdateSurface() override {
    return orvane::Call<rpc::UpdateSurface>;
  }
  orvane::Caller<rpc::UpdateLayer> OnUpdateLayer() override {
    return orvane::Call<rpc::UpdateLayer>;
  }
  orvane::Caller<rpc::ShowDropdown> OnShowDropdown() override {
    return orvane::Call<rpc::ShowDropdown>;
  }
  orvane::Caller<rpc::TakeFocus> OnTakeFocus() override {
    return orvane::Call<rpc::TakeFocus>;
  }
  orvane::Caller<rpc::AccessibilityRequestFocus> OnAccessibilityRequestFocus()
      override {
    return orvane::Call<rpc::AccessibilityRequestFocus>;
  }

 private:
  template <typename T, typename InWords>
  orvane::Publisher<T> Record(InWords in_words) {
    return [this, in_words](const google::protobuf::Message& key,
                            const T& event) -> std::size_t {
      EXPECT_EQ(key.SerializeAsString(),
                event.browser_id().SerializeAsString());
      EXPECT_EQ(event.browser_id().value(), 1u);
      published_.push_back(in_words(event));
      return 0;
    };
  }

  std::vector<std::string> published_;
};

// A page in a view that has focus and accessibility, and scripted hosts.
class PageFixture : public ::testing::Test {
 protected:
  PageFixture() {
    viewport_.is_attached = true;
    viewport_.has_focus = true;
    viewport_.is_accessibility_on = true;
    viewport_.width = 320;
    viewport_.height = 200;
    page_->SetViewport(viewport_);
  }

  static rpc::PointDip Middle(ElementId element) {
    const Rect& place = GetElement(element).place;
    return At(place.x + place.width / 2, place.y + place.height / 2);
  }
  static rpc::PointDip At(double x, double y) {
    rpc::PointDip point;
    point.set_x(x);
    point.set_y(y);
    return point;
  }

  void Move(const rpc::PointDip& position) {
    rpc::MouseMoveRequest event;
    *event.mutable_pointer()->mutable_position() = position;
    page_->MouseMove(event);
  }
  void Press(const rpc::PointDip& position,
             rpc::MouseButton button = rpc::MOUSE_BUTTON_PRIMARY) {
    rpc::MousePressRequest event;
    *event.mutable_pointer()->mutable_position() = position;
    event.set_button(button);
    page_->MousePress(event);
    loop_.RunUntilIdle();  // A call that nobody serves ends here.
  }
  void Release(const rpc::PointDip& position, std::uint32_t click_count = 1,
               rpc::MouseButton button = rpc::MOUSE_BUTTON_PRIMARY) {
    rpc::MouseReleaseRequest event;
    *event.mutable_pointer()->mutable_position() = position;
    event.set_button(button);
    event.set_click_count(click_count);
    page_->MouseRelease(event);
    loop_.RunUntilIdle();
  }
  void Click(ElementId element) {
    Press(Middle(element));
    Release(Middle(element));
  }
  void Type(const std::string& text) {
    rpc::KeyTypeRequest event;
    event.set_text(text);
    page_->KeyType(event);
    loop_.RunUntilIdle();
  }
  void Tab(std::uint32_t modifiers = 0) {
    rpc::KeyPressRequest event;
    event.mutable_key()->set_key("Tab");
    event.mutable_input()->set_modifiers(modifiers);
    page_->KeyPress(event);
    loop_.RunUntilIdle();
  }
  void ShiftTab() { Tab(rpc::MODIFIER_FLAG_SHIFT); }
  void Focus(rpc::FocusReason reason) {
    rpc::FocusRequest event;
    event.set_reason(reason);
    page_->Focus(event);
    loop_.RunUntilIdle();
  }

  template <typename T>
  void Serve(orvane::testing::ScriptedHost<T>& host) {
    host.Subscribe(kBrowser);
  }
  template <typename T>
  void Answer(orvane::testing::ScriptedHost<T>& host,
              orvane::ResponseOf<T> response) {
    host.Answer(kBrowser, host.last_id(), std::move(response));
    loop_.RunUntilIdle();
  }
  template <typename T>
  void Fail(orvane::testing::ScriptedHost<T>& host) {
    host.Fail(kBrowser, host.last_id());
    loop_.RunUntilIdle();
  }
  void AnswerDialog(bool accepted, const std::string& text) {
    rpc::CreateWebDialogResponse answer;
    answer.set_accepted(accepted);
    answer.set_text(text);
    Answer(dialogs_, answer);
  }
  void AnswerList(bool accepted, const std::vector<std::uint32_t>& indices) {
    rpc::ShowDropdownResponse answer;
    answer.set_accepted(accepted);
    for (const std::uint32_t index : indices)
      answer.add_selected_indices(index);
    Answer(lists_, answer);
  }
  void AnswerFocus(bool taken) {
    rpc::TakeFocusResponse answer;
    answer.set_taken(taken);
    Answer(focus_takers_, answer);
  }

  const BrowserId kBrowser = orvane::testing::Browser(1);
  orvane::EventLoop loop_;
  RecordingService service_;
  orvane::testing::ScriptedHost<rpc::CreateWebDialog> dialogs_{&loop_,
                                                               &service_};
  orvane::testing::ScriptedHost<rpc::ShowDropdown> lists_{&loop_, &service_};
  orvane::testing::ScriptedHost<rpc::TakeFocus> focus_takers_{&loop_,
                                                              &service_};
  orvane::testing::ScriptedHost<rpc::AccessibilityRequestFocus> readers_{
      &loop_, &service_};
  orvane::testing::ScriptedHost<rpc::UpdateSurface> surfaces_{&loop_,
                                                              &service_};
  orvane::testing::ScriptedHost<rpc::UpdateLayer> layers_{&loop_, &service_};
  Viewport viewport_;
  std::shared_ptr<Page> page_ = std::make_shared<Page>(1, &service_);
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_PAGE_FIXTURE_H_
