// Pictures of the library as GDK draws them.

#ifndef EXAMPLES_GTK_HOST_TEXTURE_H_
#define EXAMPLES_GTK_HOST_TEXTURE_H_

#include <gdk/gdk.h>

#include <memory>

#include "host/pixels.h"

namespace gtk_host {

// A copy of the picture, which is not empty.
inline std::shared_ptr<GdkTexture> NewTexture(
    const orvane::host::Picture& picture) {
  GBytes* const bytes =
      g_bytes_new(picture.pixels().data(), picture.pixels().size());
  GdkTexture* const texture = gdk_memory_texture_new(
      picture.width(), picture.height(), GDK_MEMORY_B8G8R8A8_PREMULTIPLIED,
      bytes, static_cast<gsize>(picture.stride_bytes()));
  g_bytes_unref(bytes);
  return {texture, g_object_unref};
}

}  // namespace gtk_host

#endif  // EXAMPLES_GTK_HOST_TEXTURE_H_
