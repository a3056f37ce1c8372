// What a view shows: the pictures of its page, ready to be drawn.

#ifndef HOST_SCENE_H_
#define HOST_SCENE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "host/pixels.h"
#include "rpc/browser/browser_id.pb.h"
#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/geometry.pb.h"
#include "rpc/browser/surface.pb.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"

namespace orvane::host {

// The pictures of a view, of its layers and of its popups. Each frame is copied
// as it comes and given back at once, so that the widget goes on drawing.
//
// Thread: the service thread.
class Scene {
 public:
  // One picture in its place. A host draws them one over the other.
  struct Item {
    Picture picture;

    // Where it is, in DIPs from the top left corner of the view; may reach
    // beyond the view. The picture is stretched to fill it.
    rpc::RectDip bounds;

    // The only part of the view that it covers, if there is one.
    std::optional<rpc::RectDip> clip;

    double opacity = 1;  // 0 to 1, on top of the picture's own alpha.

    // What the host draws the picture from, such as a texture; the host puts it
    // here. Empty again when the picture changes.
    std::shared_ptr<void> drawable;
  };

  // `on_changed` runs when something else is to be drawn.
  explicit Scene(std::function<void()> on_changed);
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;
  ~Scene();

  // Serves the pictures of a browser, in place of those served so far. The
  // streams are good until Stop, or until the client goes.
  void Serve(rpc::BrowserWidgetRpcClient& widget, const BrowserId& browser);

  // The widget has gone: so have its layers and popups. The last picture of the
  // view stays, to be shown dimmed.
  void Stop();

  // From bottom to top: the view, layers, popups; without those that cannot be
  // seen. Valid until `on_changed` runs or Stop is called.
  std::vector<Item*> items();

 private:
  struct Layer {
    Item item;
    std::uint64_t id = 0;
    std::int32_t z_order = 0;
  };

  rpc::FrameReceipt UpdateSurface(const rpc::UpdateSurfaceCall& call);
  // Whether the layer exists, or may be added.
  bool AcceptsLayer(const rpc::UpdateLayerCall& call) const;
  void UpdateLayer(const rpc::UpdateLayerCall& call,
                   rpc::UpdateLayerResponse& answer);

  const std::function<void()> on_changed_;
  Item view_;
  std::vector<Layer> layers_;             // In the order of their age.
  std::map<std::uint64_t, Item> popups_;  // By popup_id, which is by age.
  std::vector<std::unique_ptr<ClientStream>> streams_;
};

}  // namespace orvane::host

#endif  // HOST_SCENE_H_
