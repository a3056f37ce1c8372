// Files that pages offer.

#ifndef EXAMPLES_GTK_HOST_DOWNLOADS_H_
#define EXAMPLES_GTK_HOST_DOWNLOADS_H_

#include <gtk/gtk.h>

#include <deque>
#include <string>

#include "rpc/browser/page.pb.h"

namespace gtk_host {

// Saves files in the user's folder for downloads, else in the home folder, and
// never over one that is there. Says so in lines that can be closed, one for
// each of the latest files.
//
// Thread: GTK's.
class Downloads {
 public:
  Downloads();

  // To be put into a window; owned by it.
  GtkWidget* widget() const { return lines_; }

  // For PageHandlers of any browser.
  std::string Begin(const rpc::DownloadCall& call);
  void Update(const std::string& path, const rpc::DownloadChanged& change);

 private:
  void Say(const std::string& path, GtkMessageType type,
           const std::string& words);
  GtkWidget* LineOf(const std::string& path);

  struct Line {
    std::string path;
    GtkWidget* notice;
  };

  GtkWidget* const lines_;
  std::deque<Line> latest_;  // In it, the latest at the bottom and the end.
};

}  // namespace gtk_host

#endif  // EXAMPLES_GTK_HOST_DOWNLOADS_H_
