#include "examples/gtk_host/page_popups.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"

namespace gtk_host {
namespace {

constexpr int kMargin = 12;

GdkRectangle RectangleOf(const rpc::RectDip& rect) {
  return {static_cast<int>(rect.x()), static_cast<int>(rect.y()),
          std::max(1, static_cast<int>(rect.width())),
          std::max(1, static_cast<int>(rect.height()))};
}

void SetMargins(GtkWidget* widget) {
  gtk_widget_set_margin_top(widget, kMargin);
  gtk_widget_set_margin_bottom(widget, kMargin);
  gtk_widget_set_margin_start(widget, kMargin);
  gtk_widget_set_margin_end(widget, kMargin);
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

// The first part of what pages call a file, as GTK's filters take it.
GtkFileFilter* FilterOf(const rpc::FileDialog& file) {
  GtkFileFilter* const filter = gtk_file_filter_new();
  gtk_file_filter_set_name(filter, "What the page wants");
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

}  // namespace

// Lists

void PagePopups::ShowList(const rpc::ShowDropdownCall& call,
                          orvane::Responder<rpc::ShowDropdown> responder) {
  if (list_.has_value()) {
    std::move(responder).Respond({}).IgnoreError();
    return;
  }
  GtkWidget* const popover = gtk_popover_new();
  gtk_widget_set_parent(popover, parent_);
  gtk_popover_set_has_arrow(GTK_POPOVER(popover), FALSE);
  gtk_popover_set_position(GTK_POPOVER(popover), GTK_POS_BOTTOM);
  const GdkRectangle anchor = RectangleOf(call.anchor());
  gtk_popover_set_pointing_to(GTK_POPOVER(popover), &anchor);
  gtk_widget_set_size_request(popover, anchor.width, -1);

  GtkWidget* const box = gtk_list_box_new();
  gtk_list_box_set_activate_on_single_click(GTK_LIST_BOX(box), TRUE);
  for (int i = 0; i < call.items_size(); ++i) {
    const rpc::DropDownItem& item = call.items(i);
    const bool is_separator = item.type() == rpc::DROP_DOWN_ITEM_TYPE_SEPARATOR;
    GtkWidget* const line =
        is_separator ? gtk_separator_new(GTK_ORIENTATION_HORIZONTAL)
                     : gtk_label_new(std::string(item.label()).c_str());
    if (!is_separator) gtk_label_set_xalign(GTK_LABEL(line), 0);
    if (item.has_group_index()) gtk_widget_set_margin_start(line, kMargin);
    gtk_list_box_append(GTK_LIST_BOX(box), line);
    GtkListBoxRow* const row =
        gtk_list_box_get_row_at_index(GTK_LIST_BOX(box), i);
    const bool can_be_chosen =
        item.type() == rpc::DROP_DOWN_ITEM_TYPE_OPTION && !item.is_disabled();
    gtk_list_box_row_set_selectable(row, can_be_chosen);
    gtk_list_box_row_set_activatable(row, can_be_chosen);
    gtk_widget_set_sensitive(GTK_WIDGET(row), can_be_chosen);
    if (call.has_selected_index() &&
        call.selected_index() == static_cast<std::uint32_t>(i)) {
      gtk_list_box_select_row(GTK_LIST_BOX(box), row);
    }
  }
  g_signal_connect(
      box, "row-activated",
      G_CALLBACK(+[](GtkListBox*, GtkListBoxRow* row, PagePopups* self) {
        self->ChooseFromList(
            static_cast<std::uint32_t>(gtk_list_box_row_get_index(row)));
      }),
      this);
  g_signal_connect(popover, "closed",
                   G_CALLBACK(+[](GtkPopover*, PagePopups* self) {
                     self->ChooseFromList(std::nullopt);
                   }),
                   this);
  GtkWidget* const scrolled = gtk_scrolled_window_new();
  gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scrolled), box);
  gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scrolled),
                                 GTK_POLICY_NEVER, GTK_POLICY_AUTOMATIC);
  gtk_scrolled_window_set_propagate_natural_height(
      GTK_SCROLLED_WINDOW(scrolled), TRUE);
  gtk_popover_set_child(GTK_POPOVER(popover), scrolled);
  list_.emplace(List{popover, call.popup_id(), std::move(responder)});
  gtk_popover_popup(GTK_POPOVER(popover));
}

void PagePopups::ChooseFromList(std::optional<std::uint32_t> index) {
  if (!list_.has_value()) return;
  List list = *std::move(list_);
  list_.reset();
  rpc::ShowDropdownResponse answer;
  if (index.has_value()) {
    answer.set_accepted(true);
    answer.add_selected_indices(*index);
  }
  std::move(list.responder).Respond(answer).IgnoreError();
  g_signal_handlers_disconnect_by_data(list.popover, this);
  gtk_popover_popdown(GTK_POPOVER(list.popover));
  // Later, since this may be a handler of its own.
  g_idle_add_once(
      [](gpointer popover) { gtk_widget_unparent(GTK_WIDGET(popover)); },
      list.popover);
}

void PagePopups::CloseList(std::uint64_t popup_id) {
  if (list_.has_value() && list_->popup_id == popup_id)
    ChooseFromList(std::nullopt);
}

void PagePopups::Present() {
  if (list_.has_value()) gtk_popover_present(GTK_POPOVER(list_->popover));
}

// Dialogs

void PagePopups::ShowDialog(const rpc::CreateWebDialogCall& call,
                            orvane::Responder<rpc::CreateWebDialog> responder) {
  if (dialog_.has_value()) {
    std::move(responder).Respond({}).IgnoreError();
    return;
  }
  dialog_.emplace(Dialog{.responder = std::move(responder)});
  const std::string title = absl::StrCat(std::string(call.origin()), " says");
  if (call.has_alert()) {
    ShowQuestion(title, std::string(call.alert().message()), "OK", nullptr,
                 nullptr);
  } else if (call.has_confirm()) {
    ShowQuestion(title, std::string(call.confirm().message()), "OK", "Cancel",
                 nullptr);
  } else if (call.has_prompt()) {
    ShowQuestion(title, std::string(call.prompt().message()), "OK", "Cancel",
                 std::string(call.prompt().default_text()).c_str());
  } else if (call.has_before_unload()) {
    ShowQuestion(title, "What you have entered may be lost.", "Leave", "Stay",
                 nullptr);
  } else if (call.has_file()) {
    ShowFiles(call.file());
  } else if (call.has_color()) {
    ShowColors(call.color());
  } else {
    AnswerDialog({});
  }
}

void PagePopups::ShowQuestion(const std::string& title,
                              const std::string& message, const char* yes,
                              const char* no, const char* text) {
  GtkWidget* const window = gtk_window_new();
  gtk_window_set_title(GTK_WINDOW(window), title.c_str());
  gtk_window_set_modal(GTK_WINDOW(window), TRUE);
  gtk_window_set_resizable(GTK_WINDOW(window), FALSE);
  gtk_window_set_transient_for(GTK_WINDOW(window),
                               GTK_WINDOW(gtk_widget_get_root(parent_)));
  GtkWidget* const box = gtk_box_new(GTK_ORIENTATION_VERTICAL, kMargin);
  SetMargins(box);
  GtkWidget* const label = gtk_label_new(message.c_str());
  gtk_label_set_wrap(GTK_LABEL(label), TRUE);
  gtk_label_set_max_width_chars(GTK_LABEL(label), 60);
  gtk_box_append(GTK_BOX(box), label);
  if (text != nullptr) {
    dialog_->entry = gtk_entry_new();
    gtk_editable_set_text(GTK_EDITABLE(dialog_->entry), text);
    gtk_entry_set_activates_default(GTK_ENTRY(dialog_->entry), TRUE);
    gtk_box_append(GTK_BOX(box), dialog_->entry);
  }
  GtkWidget* const buttons = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, kMargin);
  gtk_widget_set_halign(buttons, GTK_ALIGN_END);
  if (no != nullptr) {
    GtkWidget* const button = gtk_button_new_with_label(no);
    g_signal_connect(button, "clicked",
                     G_CALLBACK(+[](GtkButton*, PagePopups* self) {
                       self->AnswerDialog({});
                     }),
                     this);
    gtk_box_append(GTK_BOX(buttons), button);
  }
  GtkWidget* const button = gtk_button_new_with_label(yes);
  g_signal_connect(
      button, "clicked", G_CALLBACK(+[](GtkButton*, PagePopups* self) {
        rpc::CreateWebDialogResponse answer;
        answer.set_accepted(true);
        if (self->dialog_->entry != nullptr) {
          answer.set_text(
              gtk_editable_get_text(GTK_EDITABLE(self->dialog_->entry)));
        }
        self->AnswerDialog(std::move(answer));
      }),
      this);
  gtk_box_append(GTK_BOX(buttons), button);
  gtk_box_append(GTK_BOX(box), buttons);
  gtk_window_set_child(GTK_WINDOW(window), box);
  gtk_window_set_default_widget(GTK_WINDOW(window), button);
  gtk_window_set_focus(GTK_WINDOW(window),
                       text != nullptr ? dialog_->entry : button);
  g_signal_connect(window, "close-request",
                   G_CALLBACK(+[](GtkWindow*, PagePopups* self) -> gboolean {
                     self->AnswerDialog({});
                     return TRUE;
                   }),
                   this);
  dialog_->window = window;
  gtk_window_present(GTK_WINDOW(window));
}

void PagePopups::ShowFiles(const rpc::FileDialog& file) {
  GtkFileChooserAction action = GTK_FILE_CHOOSER_ACTION_OPEN;
  if (file.mode() == rpc::FILE_DIALOG_MODE_OPEN_DIRECTORY)
    action = GTK_FILE_CHOOSER_ACTION_SELECT_FOLDER;
  if (file.mode() == rpc::FILE_DIALOG_MODE_SAVE)
    action = GTK_FILE_CHOOSER_ACTION_SAVE;
  GtkFileChooserNative* const chooser = gtk_file_chooser_native_new(
      nullptr, GTK_WINDOW(gtk_widget_get_root(parent_)), action, nullptr,
      nullptr);
  gtk_file_chooser_set_select_multiple(
      GTK_FILE_CHOOSER(chooser),
      file.mode() == rpc::FILE_DIALOG_MODE_OPEN_MULTIPLE);
  if (!file.accept_filters().empty())
    gtk_file_chooser_add_filter(GTK_FILE_CHOOSER(chooser), FilterOf(file));
  g_signal_connect(
      chooser, "response",
      G_CALLBACK(+[](GtkNativeDialog* native, int response, PagePopups* self) {
        rpc::CreateWebDialogResponse answer;
        if (response == GTK_RESPONSE_ACCEPT) {
          GListModel* const files =
              gtk_file_chooser_get_files(GTK_FILE_CHOOSER(native));
          for (guint i = 0; i < g_list_model_get_n_items(files); ++i) {
            auto* const chosen = G_FILE(g_list_model_get_item(files, i));
            if (char* const path = g_file_get_path(chosen)) {
              answer.add_file_paths(path);
              g_free(path);
            }
            g_object_unref(chosen);
          }
          g_object_unref(files);
          answer.set_accepted(!answer.file_paths().empty());
        }
        self->AnswerDialog(std::move(answer));
      }),
      this);
  dialog_->native = GTK_NATIVE_DIALOG(chooser);
  gtk_native_dialog_show(GTK_NATIVE_DIALOG(chooser));
}

void PagePopups::ShowColors(const rpc::ColorDialog& color) {
  GtkWidget* const window = gtk_color_chooser_dialog_new(
      nullptr, GTK_WINDOW(gtk_widget_get_root(parent_)));
  const GdkRGBA initial = ColorOf(color.initial_color_rgb());
  gtk_color_chooser_set_use_alpha(GTK_COLOR_CHOOSER(window), FALSE);
  gtk_color_chooser_set_rgba(GTK_COLOR_CHOOSER(window), &initial);
  g_signal_connect(
      window, "response",
      G_CALLBACK(+[](GtkDialog* dialog, int response, PagePopups* self) {
        rpc::CreateWebDialogResponse answer;
        if (response == GTK_RESPONSE_OK) {
          GdkRGBA chosen;
          gtk_color_chooser_get_rgba(GTK_COLOR_CHOOSER(dialog), &chosen);
          answer.set_accepted(true);
          answer.set_color_rgb(RgbOf(chosen));
        }
        self->AnswerDialog(std::move(answer));
      }),
      this);
  dialog_->window = window;
  gtk_window_present(GTK_WINDOW(window));
}

void PagePopups::AnswerDialog(rpc::CreateWebDialogResponse answer) {
  if (!dialog_.has_value()) return;
  Dialog dialog = *std::move(dialog_);
  dialog_.reset();
  std::move(dialog.responder).Respond(std::move(answer)).IgnoreError();
  if (dialog.native != nullptr) {
    g_signal_handlers_disconnect_by_data(dialog.native, this);
    gtk_native_dialog_destroy(dialog.native);
    g_object_unref(dialog.native);
  }
  if (dialog.window != nullptr) {
    g_signal_handlers_disconnect_by_data(dialog.window, this);
    gtk_window_destroy(GTK_WINDOW(dialog.window));
  }
}

void PagePopups::CloseAll() {
  ChooseFromList(std::nullopt);
  AnswerDialog({});
}

}  // namespace gtk_host
