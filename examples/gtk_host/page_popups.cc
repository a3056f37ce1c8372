#include "examples/gtk_host/page_popups.h"

#include <algorithm>
#include <string>
#include <utility>

#include "absl/strings/match.h"

#include "examples/gtk_host/signals.h"

namespace gtk_host {
namespace {

constexpr int kIndent = 12;
constexpr int kMaxListHeight = 400;

GdkRectangle RectangleOf(const rpc::RectDip& rect) {
  return {static_cast<int>(rect.x()), static_cast<int>(rect.y()),
          std::max(1, static_cast<int>(rect.width())),
          std::max(1, static_cast<int>(rect.height()))};
}

GtkWidget* NewRow(const rpc::DropDownItem& item) {
  GtkWidget* const line =
      item.type() == rpc::DROP_DOWN_ITEM_TYPE_SEPARATOR
          ? gtk_separator_new(GTK_ORIENTATION_HORIZONTAL)
          : GTK_WIDGET(g_object_new(
                GTK_TYPE_LABEL, "label", std::string(item.label()).c_str(),
                "xalign", 0.0, "margin-start",
                item.has_group_index() ? kIndent : 0, nullptr));
  const gboolean can_be_chosen = orvane::host::CanBeChosen(item);
  gtk_widget_set_sensitive(line, can_be_chosen);
  auto* const row = GTK_WIDGET(
      g_object_new(GTK_TYPE_LIST_BOX_ROW, "child", line, "selectable",
                   can_be_chosen, "activatable", can_be_chosen, nullptr));
  if (!item.tooltip().empty())
    gtk_widget_set_tooltip_text(row, std::string(item.tooltip()).c_str());
  return row;
}

GdkRGBA ColorOf(std::uint32_t rgb) {
  return {static_cast<float>(rgb >> 16 & 0xff) / 255,
          static_cast<float>(rgb >> 8 & 0xff) / 255,
          static_cast<float>(rgb & 0xff) / 255, 1};
}

std::uint32_t RgbOf(const GdkRGBA& color) {
  const auto byte = [](float part) {
    return static_cast<std::uint32_t>(std::clamp(part, 0.0f, 1.0f) * 255 +
                                      0.5f);
  };
  return byte(color.red) << 16 | byte(color.green) << 8 | byte(color.blue);
}

GtkFileFilter* FilterOf(const rpc::FileDialog& file) {
  GtkFileFilter* const filter = gtk_file_filter_new();
  gtk_file_filter_set_name(filter, "What the page asks for");
  for (const auto& accepted : file.accept_filters()) {
    const std::string text(accepted);
    if (absl::StartsWith(text, ".")) {
      gtk_file_filter_add_suffix(filter, text.c_str() + 1);
    } else {
      gtk_file_filter_add_mime_type(filter, text.c_str());
    }
  }
  return filter;
}

void AddPaths(GtkFileChooser* chooser, rpc::CreateWebDialogResponse& answer) {
  GListModel* const files = gtk_file_chooser_get_files(chooser);
  for (guint i = 0; i < g_list_model_get_n_items(files); ++i) {
    auto* const file = G_FILE(g_list_model_get_item(files, i));
    if (const char* const path = g_file_peek_path(file))
      answer.add_file_paths(path);
    g_object_unref(file);
  }
  g_object_unref(files);
}

}  // namespace

PagePopups::PagePopups(GtkWidget* view) : view_(view) {
  // Popovers are children of the view, and must go before it.
  Connect<&PagePopups::CloseAll>(view_, "destroy", this);
}

PagePopups::~PagePopups() {
  CloseAll();
  g_signal_handlers_disconnect_by_data(view_, this);
}

GtkWindow* PagePopups::window() const {
  return GTK_WINDOW(gtk_widget_get_root(view_));
}

void PagePopups::Serve(rpc::BrowserWidgetRpcClient& widget,
                       const BrowserId& browser) {
  streams_.clear();
  streams_.push_back(widget.OnShowDropdown(
      browser, [this](const rpc::ShowDropdownCall& call,
                      orvane::Responder<rpc::ShowDropdown> responder) {
        ShowList(call, std::move(responder));
      }));
  streams_.push_back(widget.WhenDropDownDeleted(
      browser, [this](const rpc::DropDownDeleted& event) {
        if (list_.has_value() && list_->popup_id == event.popup_id())
          CloseList(false);
      }));
  streams_.push_back(widget.OnCreateWebDialog(
      browser, [this](const rpc::CreateWebDialogCall& call,
                      orvane::Responder<rpc::CreateWebDialog> responder) {
        ShowDialog(call, std::move(responder));
      }));
}

void PagePopups::CloseAll() {
  CloseList(false);
  CloseDialog({});
}

// Lists

void PagePopups::ShowList(const rpc::ShowDropdownCall& call,
                          orvane::Responder<rpc::ShowDropdown> responder) {
  CloseList(false);
  const GdkRectangle anchor = RectangleOf(call.anchor());
  auto* const box = GTK_LIST_BOX(g_object_new(
      GTK_TYPE_LIST_BOX, "selection-mode",
      call.allows_multiple() ? GTK_SELECTION_MULTIPLE : GTK_SELECTION_SINGLE,
      nullptr));
  auto* const scrolled = GTK_WIDGET(
      g_object_new(GTK_TYPE_SCROLLED_WINDOW, "child", box, "hscrollbar-policy",
                   GTK_POLICY_NEVER, "propagate-natural-height", TRUE,
                   "max-content-height", kMaxListHeight, nullptr));
  auto* const popover =
      GTK_WIDGET(g_object_new(GTK_TYPE_POPOVER, "child", scrolled, "has-arrow",
                              FALSE, "position", GTK_POS_BOTTOM, "pointing-to",
                              &anchor, "width-request", anchor.width, nullptr));
  if (call.is_right_to_left())
    gtk_widget_set_direction(popover, GTK_TEXT_DIR_RTL);
  gtk_widget_set_parent(popover, view_);
  for (const rpc::DropDownItem& item : call.items()) {
    GtkWidget* const row = NewRow(item);
    gtk_list_box_append(box, row);
    if (item.is_selected()) gtk_list_box_select_row(box, GTK_LIST_BOX_ROW(row));
  }
  Connect<&PagePopups::OnRowActivated>(box, "row-activated", this);
  Connect<&PagePopups::OnListClosed>(popover, "closed", this);
  list_.emplace(List{popover, box, call.allows_multiple(), call.popup_id(),
                     std::move(responder)});
  gtk_popover_popup(GTK_POPOVER(popover));
  GtkListBoxRow* const first = gtk_list_box_get_row_at_index(
      box, static_cast<int>(call.selected_index()));
  if (first != nullptr) gtk_widget_grab_focus(GTK_WIDGET(first));
  list_->responder.OnGivenUp([this] { CloseList(false); });
}

void PagePopups::OnRowActivated(GtkListBoxRow*) {
  if (!list_->allows_multiple) CloseList(true);
}

// Several choices have no button that says they are made.
void PagePopups::OnListClosed() { CloseList(list_->allows_multiple); }

void PagePopups::CloseList(bool is_accepted) {
  if (!list_.has_value()) return;
  List list = *std::move(list_);
  list_.reset();
  rpc::ShowDropdownResponse answer;
  answer.set_accepted(is_accepted);
  GList* const rows = gtk_list_box_get_selected_rows(list.box);
  for (GList* row = rows; is_accepted && row != nullptr; row = row->next) {
    answer.add_selected_indices(static_cast<std::uint32_t>(
        gtk_list_box_row_get_index(GTK_LIST_BOX_ROW(row->data))));
  }
  g_list_free(rows);
  std::move(list.responder).Respond(answer).IgnoreError();
  g_signal_handlers_disconnect_by_data(list.box, this);
  g_signal_handlers_disconnect_by_data(list.popover, this);
  gtk_popover_popdown(GTK_POPOVER(list.popover));
  if (gtk_widget_in_destruction(view_)) {
    gtk_widget_unparent(list.popover);
    return;
  }
  // Later, since this may be a handler of its own.
  g_idle_add_once(
      [](gpointer popover) {
        if (gtk_widget_get_parent(GTK_WIDGET(popover)) != nullptr)
          gtk_widget_unparent(GTK_WIDGET(popover));
        g_object_unref(popover);
      },
      g_object_ref(list.popover));
}

void PagePopups::Present() {
  if (list_.has_value()) gtk_popover_present(GTK_POPOVER(list_->popover));
}

// Dialogs

void PagePopups::ShowDialog(const rpc::CreateWebDialogCall& call,
                            orvane::Responder<rpc::CreateWebDialog> responder) {
  const auto question = orvane::host::QuestionOf(call);
  const std::string title = orvane::host::DialogTitleOf(call);
  const bool is_known =
      question.has_value() || call.has_file() || call.has_color();
  if (dialog_.has_value() || !is_known) {
    std::move(responder).Respond({}).IgnoreError();
    return;
  }
  dialog_.emplace(Dialog{nullptr, nullptr, std::move(responder)});
  if (call.has_file()) {
    GtkNativeDialog* const chooser = NewFileChooser(call.file());
    dialog_->shown = G_OBJECT(chooser);
    gtk_native_dialog_set_title(chooser, title.c_str());
    gtk_native_dialog_show(chooser);
  } else {
    GtkWidget* const dialog = question.has_value()
                                  ? NewQuestion(*question)
                                  : NewColorChooser(call.color());
    dialog_->shown = G_OBJECT(dialog);
    gtk_window_set_title(GTK_WINDOW(dialog), title.c_str());
    gtk_window_present(GTK_WINDOW(dialog));
  }
  Connect<&PagePopups::OnResponse>(dialog_->shown, "response", this);
  dialog_->responder.OnGivenUp([this] { CloseDialog({}); });
}

GtkWidget* PagePopups::NewQuestion(const orvane::host::Question& question) {
  GtkWidget* const dialog =
      gtk_message_dialog_new(window(), GTK_DIALOG_MODAL, GTK_MESSAGE_OTHER,
                             GTK_BUTTONS_NONE, "%s", question.message.c_str());
  if (!question.decline.empty()) {
    gtk_dialog_add_button(GTK_DIALOG(dialog), question.decline.c_str(),
                          GTK_RESPONSE_CANCEL);
  }
  gtk_dialog_add_button(GTK_DIALOG(dialog), question.accept.c_str(),
                        GTK_RESPONSE_OK);
  gtk_dialog_set_default_response(GTK_DIALOG(dialog), GTK_RESPONSE_OK);
  if (!question.answer.has_value()) return dialog;
  dialog_->entry =
      GTK_WIDGET(g_object_new(GTK_TYPE_ENTRY, "text", question.answer->c_str(),
                              "activates-default", TRUE, nullptr));
  gtk_box_append(
      GTK_BOX(gtk_message_dialog_get_message_area(GTK_MESSAGE_DIALOG(dialog))),
      dialog_->entry);
  gtk_window_set_focus(GTK_WINDOW(dialog), dialog_->entry);
  return dialog;
}

GtkNativeDialog* PagePopups::NewFileChooser(const rpc::FileDialog& file) {
  GtkFileChooserAction action = GTK_FILE_CHOOSER_ACTION_OPEN;
  if (file.mode() == rpc::FILE_DIALOG_MODE_OPEN_DIRECTORY)
    action = GTK_FILE_CHOOSER_ACTION_SELECT_FOLDER;
  if (file.mode() == rpc::FILE_DIALOG_MODE_SAVE)
    action = GTK_FILE_CHOOSER_ACTION_SAVE;
  GtkFileChooserNative* const native =
      gtk_file_chooser_native_new(nullptr, window(), action, nullptr, nullptr);
  auto* const chooser = GTK_FILE_CHOOSER(native);
  gtk_native_dialog_set_modal(GTK_NATIVE_DIALOG(native), TRUE);
  gtk_file_chooser_set_select_multiple(
      chooser, file.mode() == rpc::FILE_DIALOG_MODE_OPEN_MULTIPLE);
  if (action == GTK_FILE_CHOOSER_ACTION_SAVE) {
    gtk_file_chooser_set_current_name(
        chooser, std::string(file.default_file_name()).c_str());
  }
  if (!file.accept_filters().empty()) {
    gtk_file_chooser_add_filter(chooser, FilterOf(file));
    if (!file.excludes_other_files()) {
      GtkFileFilter* const all = gtk_file_filter_new();
      gtk_file_filter_set_name(all, "All files");
      gtk_file_filter_add_pattern(all, "*");
      gtk_file_chooser_add_filter(chooser, all);
    }
  }
  return GTK_NATIVE_DIALOG(native);
}

GtkWidget* PagePopups::NewColorChooser(const rpc::ColorDialog& color) {
  GtkWidget* const dialog = gtk_color_chooser_dialog_new(nullptr, window());
  auto* const chooser = GTK_COLOR_CHOOSER(dialog);
  gtk_window_set_modal(GTK_WINDOW(dialog), TRUE);
  gtk_color_chooser_set_use_alpha(chooser, FALSE);
  std::vector<GdkRGBA> suggested;
  for (const std::uint32_t rgb : color.suggested_colors_rgb())
    suggested.push_back(ColorOf(rgb));
  if (!suggested.empty()) {
    gtk_color_chooser_add_palette(chooser, GTK_ORIENTATION_HORIZONTAL, 9,
                                  static_cast<int>(suggested.size()),
                                  suggested.data());
  }
  const GdkRGBA initial = ColorOf(color.initial_color_rgb());
  gtk_color_chooser_set_rgba(chooser, &initial);
  return dialog;
}

void PagePopups::OnResponse(int response) {
  rpc::CreateWebDialogResponse answer;
  answer.set_accepted(response == GTK_RESPONSE_OK ||
                      response == GTK_RESPONSE_ACCEPT);
  GObject* const shown = dialog_->shown;
  if (!answer.accepted()) {
    // Nothing else is asked for.
  } else if (GTK_IS_FILE_CHOOSER(shown)) {
    AddPaths(GTK_FILE_CHOOSER(shown), answer);
    answer.set_accepted(!answer.file_paths().empty());
  } else if (GTK_IS_COLOR_CHOOSER(shown)) {
    GdkRGBA chosen;
    gtk_color_chooser_get_rgba(GTK_COLOR_CHOOSER(shown), &chosen);
    answer.set_color_rgb(RgbOf(chosen));
  } else if (dialog_->entry != nullptr) {
    answer.set_text(gtk_editable_get_text(GTK_EDITABLE(dialog_->entry)));
  }
  CloseDialog(answer);
}

void PagePopups::CloseDialog(const rpc::CreateWebDialogResponse& answer) {
  if (!dialog_.has_value()) return;
  Dialog dialog = *std::move(dialog_);
  dialog_.reset();
  std::move(dialog.responder).Respond(answer).IgnoreError();
  g_signal_handlers_disconnect_by_data(dialog.shown, this);
  if (GTK_IS_NATIVE_DIALOG(dialog.shown)) {
    gtk_native_dialog_destroy(GTK_NATIVE_DIALOG(dialog.shown));
    g_object_unref(dialog.shown);
  } else {
    gtk_window_destroy(GTK_WINDOW(dialog.shown));
  }
}

}  // namespace gtk_host
