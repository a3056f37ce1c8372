#include "examples/host/console.h"

#include <algorithm>
#include <iostream>
#include <utility>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"

#include "examples/host/image.h"

namespace host {
namespace {

constexpr absl::Duration kPatience = absl::Seconds(10);

}  // namespace

Console::Console(orvane::EventLoop* loop, orvane::SocketClient* connection,
                 BrowserId browser)
    : loop_(loop),
      connection_(connection),
      widget_(connection),
      browser_(std::move(browser)) {
  Watch();
  Serve();
}

void Console::Tell(const std::string& news) {
  // Most of it comes from the widget, which has it from a page.
  std::string line = orvane::Printable(news);
  std::cout << line << std::endl;
  news_.push_back(std::move(line));
}

absl::Status Console::Await(const std::string& beginning) {
  bool is_late = false;
  const auto timer = loop_->RunAfter(kPatience, [&is_late] { is_late = true; });
  const auto has_come = [&] {
    return std::any_of(news_.begin(), news_.end(), [&](const auto& news) {
      return absl::StartsWith(news, beginning);
    });
  };
  loop_->RunUntil(
      [&] { return has_come() || is_late || !connection_->status().ok(); });
  if (has_come()) {
    news_.clear();
    return absl::OkStatus();
  }
  if (!connection_->status().ok()) return connection_->status();
  return absl::DeadlineExceededError(absl::StrCat(
      "waited ", absl::FormatDuration(kPatience), " for \"", beginning, "\""));
}

// Events

void Console::Watch() {
  streams_.push_back(widget_.WhenCursorChanged(
      browser_, [this](const rpc::CursorChanged& event) {
        Tell("cursor: " + rpc::CursorType_Name(event.cursor().type()));
      }));
  streams_.push_back(widget_.WhenTooltipChanged(
      browser_, [this](const rpc::TooltipChanged& event) {
        Tell("tooltip: " + (event.text().empty() ? "none" : event.text()));
      }));
  streams_.push_back(widget_.WhenDropDownCreated(
      browser_, [this](const rpc::DropDownCreated& event) {
        Tell(absl::StrCat("drop-down ", event.popup_id(), ": opens"));
      }));
  streams_.push_back(widget_.WhenDropDownDeleted(
      browser_, [this](const rpc::DropDownDeleted& event) {
        Tell(absl::StrCat("drop-down ", event.popup_id(), ": closed"));
      }));
  streams_.push_back(widget_.WhenDragCursorUpdated(
      browser_, [this](const rpc::DragCursorUpdated& event) {
        Tell(absl::StrCat("drag",
                          event.began_in_page() ? " out of the page" : "",
                          ": a drop here would do ",
                          rpc::DragOperation_Name(event.operation())));
      }));
  streams_.push_back(widget_.WhenAriaLiveRegionChanged(
      browser_, [this](const rpc::AriaLiveRegionChanged& event) {
        Tell(absl::StrCat("screen reader: \"", event.text(), "\""));
      }));
}

// Calls from the widget. The status of Respond is ignored: it fails only if the
// connection is gone, and Await reports that.

rpc::FrameReceipt Console::Receive(const rpc::PixelFrame& frame,
                                   const std::string& what,
                                   orvane::host::Picture* picture) {
  const absl::Status copied = picture->Update(frame);
  if (copied.ok()) {
    Tell(absl::StrCat(what, ": picture ", frame.frame_id(), ", ",
                      picture->width(), " x ", picture->height(),
                      " pixels, on average ", AverageColor(*picture)));
  } else {
    Tell(absl::StrCat(what, ": discarded, ", copied.message()));
  }
  return orvane::host::ReceiptFor(frame, copied);
}

void Console::Serve() {
  streams_.push_back(widget_.OnUpdateSurface(
      browser_, [this](const rpc::UpdateSurfaceCall& call,
                       orvane::Responder<rpc::UpdateSurface> responder) {
        orvane::host::Picture popup;
        rpc::UpdateSurfaceResponse answer;
        *answer.mutable_receipt() =
            Receive(call.frame(), call.has_popup() ? "popup" : "view",
                    call.has_popup() ? &popup : &view_);
        std::move(responder).Respond(std::move(answer)).IgnoreError();
      }));
  streams_.push_back(widget_.OnUpdateLayer(
      browser_, [this](const rpc::UpdateLayerCall& call,
                       orvane::Responder<rpc::UpdateLayer> responder) {
        const std::string layer = absl::StrCat("layer ", call.layer_id());
        rpc::UpdateLayerResponse answer;
        if (call.is_removed()) {
          Tell(layer + ": removed");
        } else if (!call.has_frame()) {
          Tell(absl::StrCat(layer, ": moved to ", call.bounds().x(), ", ",
                            call.bounds().y()));
        } else {
          orvane::host::Picture picture;
          *answer.mutable_receipt() = Receive(call.frame(), layer, &picture);
        }
        std::move(responder).Respond(std::move(answer)).IgnoreError();
      }));
  streams_.push_back(widget_.OnCreateWebDialog(
      browser_, [this](const rpc::CreateWebDialogCall& call,
                       orvane::Responder<rpc::CreateWebDialog> responder) {
        rpc::CreateWebDialogResponse answer;
        answer.set_accepted(call.has_prompt());
        answer.set_text("Ada");
        Tell(absl::StrCat("dialog of ", call.origin(), ": ",
                          call.prompt().message(), " ", answer.text()));
        std::move(responder).Respond(std::move(answer)).IgnoreError();
      }));
  streams_.push_back(widget_.OnShowDropdown(
      browser_, [this](const rpc::ShowDropdownCall& call,
                       orvane::Responder<rpc::ShowDropdown> responder) {
        std::string list = absl::StrCat("drop-down ", call.popup_id(), ":");
        for (const rpc::DropDownItem& item : call.items())
          absl::StrAppend(&list, " ", item.label());
        rpc::ShowDropdownResponse answer;
        if (call.items().empty()) {
          Tell(list + " nothing to choose");
        } else {
          Tell(list + "; the next one is chosen");
          answer.set_accepted(true);
          answer.add_selected_indices((call.selected_index() + 1) %
                                      static_cast<unsigned>(call.items_size()));
        }
        std::move(responder).Respond(std::move(answer)).IgnoreError();
      }));
  streams_.push_back(widget_.OnTakeFocus(
      browser_, [this](const rpc::TakeFocusCall& call,
                       orvane::Responder<rpc::TakeFocus> responder) {
        Tell("focus: leaves the page, " +
             rpc::FocusDirection_Name(call.direction()));
        // Sent before the answer, so it arrives first.
        widget_.Unfocus(browser_, [](const auto&) {});
        rpc::TakeFocusResponse answer;
        answer.set_taken(true);
        std::move(responder).Respond(std::move(answer)).IgnoreError();
      }));
  streams_.push_back(widget_.OnAccessibilityRequestFocus(
      browser_,
      [this](const rpc::AccessibilityRequestFocusCall& call,
             orvane::Responder<rpc::AccessibilityRequestFocus> responder) {
        Tell("screen reader: now at " + call.node().token());
        rpc::AccessibilityRequestFocusResponse answer;
        answer.set_focused(true);
        std::move(responder).Respond(std::move(answer)).IgnoreError();
      }));
}

}  // namespace host
