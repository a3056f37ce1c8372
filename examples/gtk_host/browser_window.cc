#include "examples/gtk_host/browser_window.h"

#include <algorithm>
#include <utility>

#include "absl/strings/str_cat.h"

#include "examples/gtk_host/notice.h"
#include "examples/gtk_host/signals.h"
#include "examples/gtk_host/texture.h"

namespace gtk_host {
namespace {

constexpr int kWidth = 900;
constexpr int kHeight = 640;
constexpr int kSpace = 6;

BrowserId IdOf(std::uint64_t number) {
  BrowserId browser;
  browser.set_value(number);
  return browser;
}

bool IsBlank(const std::optional<rpc::PageState>& state) {
  return state.has_value() &&
         (state->address().empty() || state->address() == "about:blank");
}

// As large as the toolkit's own icons. Null: the page has none.
void ShowIcon(GtkWidget* image, GdkTexture* icon) {
  gtk_image_set_from_paintable(GTK_IMAGE(image), GDK_PAINTABLE(icon));
  gtk_widget_set_visible(image, icon != nullptr);
}

}  // namespace

BrowserWindow::Tab::Tab(BrowserWindow* window, orvane::EventLoop* loop,
                        const WidgetSource& source, std::uint64_t browser)
    : number(browser),
      icon(gtk_image_new()),
      label(GTK_WIDGET(g_object_new(GTK_TYPE_LABEL, "ellipsize",
                                    PANGO_ELLIPSIZE_END, "hexpand", TRUE,
                                    nullptr))),
      page(source.connect, IdOf(browser),
           {.on_state =
                [this, window](const rpc::PageState* told) {
                  window->OnState(*this, told);
                },
            .on_icon =
                [this, window](const orvane::host::Picture* picture) {
                  texture = picture != nullptr ? NewTexture(*picture) : nullptr;
                  window->Show();
                },
            .on_open_window =
                [window](const rpc::OpenWindowCall& call) {
                  return window->OpenWindow(call);
                },
            .on_download =
                [window](const rpc::DownloadCall& call) {
                  return window->downloads_.Begin(call);
                },
            .on_download_changed =
                [window](const std::string& path,
                         const rpc::DownloadChanged& change) {
                  window->downloads_.Update(path, change);
                }}),
      view(loop, source, IdOf(browser), [this] { page.Connect(); }) {}

BrowserWindow::BrowserWindow(GtkApplication* application,
                             orvane::EventLoop* loop,
                             const WidgetSource& source,
                             const std::vector<std::uint64_t>& browsers)
    : window_(gtk_application_window_new(application)),
      bar_(gtk_box_new(GTK_ORIENTATION_HORIZONTAL, kSpace)),
      address_(
          GTK_WIDGET(g_object_new(GTK_TYPE_ENTRY, "hexpand", TRUE,
                                  "placeholder-text", "Address", nullptr))),
      icon_(gtk_image_new()),
      lock_(gtk_image_new_from_icon_name("channel-secure-symbolic")),
      reload_(NewButton("win.reload", "view-refresh-symbolic", "Reload")),
      problem_(NewNotice()),
      notebook_(GTK_NOTEBOOK(gtk_notebook_new())) {
  AddAction<&BrowserWindow::GoBack>(application, "back", {"<Alt>Left"});
  AddAction<&BrowserWindow::GoForward>(application, "forward", {"<Alt>Right"});
  AddAction<&BrowserWindow::ReloadOrStop>(application, "reload",
                                          {"F5", "<Control>r"});
  AddAction<&BrowserWindow::EnterAddress>(application, "address",
                                          {"<Control>l"});
  AddAction<&BrowserWindow::ShowNextTab>(application, "next-tab",
                                         {"<Control>Page_Down"});
  AddAction<&BrowserWindow::ShowPreviousTab>(application, "previous-tab",
                                             {"<Control>Page_Up"});
  gtk_widget_add_css_class(bar_, "toolbar");
  gtk_box_append(GTK_BOX(bar_),
                 NewButton("win.back", "go-previous-symbolic", "Back"));
  gtk_box_append(GTK_BOX(bar_),
                 NewButton("win.forward", "go-next-symbolic", "Forward"));
  gtk_box_append(GTK_BOX(bar_), reload_);
  gtk_box_append(GTK_BOX(bar_), icon_);
  gtk_box_append(GTK_BOX(bar_), lock_);
  gtk_box_append(GTK_BOX(bar_), address_);
  Connect<&BrowserWindow::Load>(address_, "activate", this);

  const bool has_tabs = browsers.size() > 1;
  gtk_notebook_set_show_tabs(notebook_, has_tabs);
  gtk_notebook_set_show_border(notebook_, FALSE);
  gtk_notebook_set_scrollable(notebook_, TRUE);
  Enable("next-tab", has_tabs);
  Enable("previous-tab", has_tabs);
  for (const std::uint64_t browser : browsers) {
    tabs_.push_back(std::make_unique<Tab>(this, loop, source, browser));
    GtkWidget* const head = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, kSpace);
    gtk_box_append(GTK_BOX(head), tabs_.back()->icon);
    gtk_box_append(GTK_BOX(head), tabs_.back()->label);
    gtk_notebook_append_page(notebook_, tabs_.back()->view.widget(), head);
  }
  Connect<&BrowserWindow::Show>(notebook_, "notify::page", this);

  GtkWidget* const box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  for (GtkWidget* const part :
       {bar_, problem_, GTK_WIDGET(notebook_), downloads_.widget()})
    gtk_box_append(GTK_BOX(box), part);
  gtk_window_set_child(GTK_WINDOW(window_), box);
  gtk_window_set_default_size(GTK_WINDOW(window_), kWidth, kHeight);
  tab().view.GrabFocus();
  Show();
  gtk_window_present(GTK_WINDOW(window_));
}

BrowserWindow::~BrowserWindow() {
  g_signal_handlers_disconnect_by_data(notebook_, this);
  g_signal_handlers_disconnect_by_data(address_, this);
}

void BrowserWindow::Detach() {
  for (const auto& each : tabs_) each->view.Detach();
}

// What the window shows

BrowserWindow::Tab& BrowserWindow::tab() {
  const int current = gtk_notebook_get_current_page(notebook_);
  return *tabs_[static_cast<std::size_t>(std::max(current, 0))];
}

std::string BrowserWindow::TitleOf(const Tab& of) const {
  if (of.state.has_value() && !of.state->title().empty())
    return of.state->title();
  if (of.state.has_value() && !of.state->address().empty())
    return of.state->address();
  return tabs_.size() == 1 ? "Browser" : absl::StrCat("Browser ", of.number);
}

void BrowserWindow::OnState(Tab& changed, const rpc::PageState* state) {
  changed.state.reset();
  if (state != nullptr) changed.state = *state;
  Show();
}

void BrowserWindow::Show() {
  for (const auto& each : tabs_) {
    const std::string title = TitleOf(*each);
    gtk_label_set_text(GTK_LABEL(each->label), title.c_str());
    ShowIcon(each->icon, each->texture.get());
    each->view.SetTitle(title);
  }
  const Tab& shown = tab();
  const rpc::PageState state = shown.state.value_or(rpc::PageState());
  gtk_window_set_title(GTK_WINDOW(window_), TitleOf(shown).c_str());
  gtk_widget_set_visible(bar_, shown.state.has_value());
  for (const char* const action : {"reload", "address"})
    Enable(action, shown.state.has_value());
  Enable("back", state.can_go_back());
  Enable("forward", state.can_go_forward());
  const bool can_stop = state.is_loading() || state.is_unresponsive();
  gtk_button_set_icon_name(GTK_BUTTON(reload_), can_stop
                                                    ? "process-stop-symbolic"
                                                    : "view-refresh-symbolic");
  gtk_widget_set_tooltip_text(reload_, can_stop ? "Stop" : "Reload");
  ShowIcon(icon_, shown.texture.get());
  gtk_widget_set_visible(lock_, state.security() == rpc::PAGE_SECURITY_SECURE);
  SetNotice(problem_, GTK_MESSAGE_WARNING, shown.page.ProblemText());
  // Not while the user types another one.
  if (gtk_widget_get_focus_child(address_) == nullptr) {
    gtk_editable_set_text(GTK_EDITABLE(address_),
                          std::string(state.address()).c_str());
  }
}

bool BrowserWindow::OpenWindow(const rpc::OpenWindowCall& call) {
  if (!call.is_user_gesture()) return false;
  const auto blank =
      std::find_if(tabs_.begin(), tabs_.end(),
                   [](const auto& each) { return IsBlank(each->state); });
  if (blank == tabs_.end()) return true;
  (*blank)->page.Load(call.address());
  ShowTab(static_cast<int>(blank - tabs_.begin()));
  return false;
}

void BrowserWindow::ShowTab(int index) {
  gtk_notebook_set_current_page(notebook_, index);
  tab().view.GrabFocus();
}

// What the user does

void BrowserWindow::Load() {
  Tab& loading = tab();
  loading.page.Load(
      orvane::host::AddressOf(gtk_editable_get_text(GTK_EDITABLE(address_))));
  loading.view.GrabFocus();
}

void BrowserWindow::GoBack() { tab().page.GoBack(); }

void BrowserWindow::GoForward() { tab().page.GoForward(); }

void BrowserWindow::ReloadOrStop() {
  const auto& state = tab().state;
  if (state.has_value() && (state->is_loading() || state->is_unresponsive())) {
    tab().page.Stop();
  } else {
    tab().page.Reload();
  }
}

void BrowserWindow::EnterAddress() { gtk_widget_grab_focus(address_); }

void BrowserWindow::ShowNextTab() {
  ShowTab((gtk_notebook_get_current_page(notebook_) + 1) % tab_count());
}

void BrowserWindow::ShowPreviousTab() {
  ShowTab((gtk_notebook_get_current_page(notebook_) + tab_count() - 1) %
          tab_count());
}

template <auto kFunction>
void BrowserWindow::AddAction(GtkApplication* application, const char* name,
                              std::vector<const char*> keys) {
  GSimpleAction* const action = g_simple_action_new(name, nullptr);
  Connect<kFunction>(action, "activate", this);
  g_action_map_add_action(G_ACTION_MAP(window_), G_ACTION(action));
  g_object_unref(action);
  keys.push_back(nullptr);
  gtk_application_set_accels_for_action(
      application, absl::StrCat("win.", name).c_str(), keys.data());
}

void BrowserWindow::Enable(const char* action, bool is_enabled) {
  g_simple_action_set_enabled(G_SIMPLE_ACTION(g_action_map_lookup_action(
                                  G_ACTION_MAP(window_), action)),
                              is_enabled);
}

GtkWidget* BrowserWindow::NewButton(const char* action, const char* icon,
                                    const char* tooltip) {
  return GTK_WIDGET(g_object_new(GTK_TYPE_BUTTON, "action-name", action,
                                 "icon-name", icon, "tooltip-text", tooltip,
                                 "focus-on-click", FALSE, nullptr));
}

}  // namespace gtk_host
