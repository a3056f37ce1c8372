#include "examples/gtk_host/downloads.h"

#include <cstddef>
#include <filesystem>

#include "absl/strings/str_cat.h"

#include "examples/gtk_host/notice.h"
#include "host/new_file.h"
#include "orvane/client.h"

namespace gtk_host {
namespace {

constexpr std::size_t kMaxLines = 5;
constexpr int kOnlyForTheUser = 0700;
constexpr std::size_t kMaxErrorBytes = 300;

std::string Folder() {
  const char* const folder = g_get_user_special_dir(G_USER_DIRECTORY_DOWNLOAD);
  return folder != nullptr ? folder : g_get_home_dir();
}

std::string NameOf(const std::string& path) {
  return orvane::Printable(std::filesystem::path(path).filename().string());
}

std::string FolderOf(const std::string& path) {
  return orvane::Printable(std::filesystem::path(path).parent_path().string());
}

GtkWidget* NewLine() {
  GtkWidget* const line = NewNotice();
  gtk_info_bar_set_show_close_button(GTK_INFO_BAR(line), TRUE);
  g_signal_connect(line, "response", G_CALLBACK(+[](GtkWidget* closed) {
                     gtk_widget_set_visible(closed, FALSE);
                   }),
                   nullptr);
  return line;
}

}  // namespace

Downloads::Downloads() : lines_(gtk_box_new(GTK_ORIENTATION_VERTICAL, 0)) {}

std::string Downloads::Begin(const rpc::DownloadCall& call) {
  const std::string folder = Folder();
  // If that fails, so does what follows, in words.
  g_mkdir_with_parents(folder.c_str(), kOnlyForTheUser);
  const std::string suggested(call.suggested_name());
  const auto path = orvane::host::CreateNewFile(folder, suggested);
  if (!path.ok()) {
    Say("", GTK_MESSAGE_WARNING,
        absl::StrCat(orvane::host::SafeFileName(suggested),
                     " cannot be saved: ", path.status().message()));
    return "";
  }
  Say(*path, GTK_MESSAGE_INFO, absl::StrCat("Saving ", NameOf(*path), "…"));
  return *path;
}

void Downloads::Update(const std::string& path,
                       const rpc::DownloadChanged& change) {
  if (change.status() == rpc::DOWNLOAD_STATUS_COMPLETED) {
    Say(path, GTK_MESSAGE_INFO,
        absl::StrCat(NameOf(path), " has been saved in ", FolderOf(path), "."));
  } else if (change.status() == rpc::DOWNLOAD_STATUS_FAILED) {
    orvane::host::RemoveIfEmpty(path);
    Say(path, GTK_MESSAGE_WARNING,
        absl::StrCat(NameOf(path), " has not been saved: ",
                     orvane::Printable(change.error(), kMaxErrorBytes)));
  }
}

void Downloads::Say(const std::string& path, GtkMessageType type,
                    const std::string& words) {
  SetNotice(LineOf(path), type, words);
}

// A line that has been closed comes back when there is news. Of too many lines,
// the oldest becomes the newest.
GtkWidget* Downloads::LineOf(const std::string& path) {
  for (const Line& line : latest_) {
    if (line.path == path) return line.notice;
  }
  GtkWidget* notice = nullptr;
  if (latest_.size() < kMaxLines) {
    notice = NewLine();
    gtk_box_append(GTK_BOX(lines_), notice);
  } else {
    notice = latest_.front().notice;
    latest_.pop_front();
    gtk_box_reorder_child_after(GTK_BOX(lines_), notice, latest_.back().notice);
  }
  latest_.push_back({path, notice});
  return notice;
}

}  // namespace gtk_host
