// A line of words across the window.

#ifndef EXAMPLES_GTK_HOST_NOTICE_H_
#define EXAMPLES_GTK_HOST_NOTICE_H_

#include <gtk/gtk.h>

#include <string>

namespace gtk_host {

// Without words, and not seen until it has some. Owned by its parent.
inline GtkWidget* NewNotice() {
  auto* const label = GTK_WIDGET(g_object_new(GTK_TYPE_LABEL, "ellipsize",
                                              PANGO_ELLIPSIZE_MIDDLE, "xalign",
                                              0.0, "hexpand", TRUE, nullptr));
  auto* const notice =
      GTK_WIDGET(g_object_new(GTK_TYPE_INFO_BAR, "visible", FALSE, nullptr));
  gtk_info_bar_add_child(GTK_INFO_BAR(notice), label);
  g_object_set_data(G_OBJECT(notice), "label", label);
  return notice;
}

// The type decides about the colour. Of words that do not fit, the middle is in
// the tooltip alone. Without words, the notice is not seen.
inline void SetNotice(GtkWidget* notice, GtkMessageType type,
                      const std::string& words) {
  gtk_info_bar_set_message_type(GTK_INFO_BAR(notice), type);
  gtk_label_set_text(GTK_LABEL(g_object_get_data(G_OBJECT(notice), "label")),
                     words.c_str());
  gtk_widget_set_tooltip_text(notice, words.c_str());
  gtk_widget_set_visible(notice, !words.empty());
}

}  // namespace gtk_host

#endif  // EXAMPLES_GTK_HOST_NOTICE_H_
