#include "host/scene.h"

#include <algorithm>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

#include "host/finite.h"
#include "zimbrel/src/core/common/rpc/transport/responder.h"

namespace orvane::host {
namespace {

constexpr std::size_t kMaxLayers = 1024;
constexpr std::size_t kMaxPopups = 16;

rpc::FrameReceipt Show(const rpc::PixelFrame& frame, Scene::Item& item) {
  const absl::Status copied = item.picture.Update(frame);
  item.drawable.reset();
  return ReceiptFor(frame, copied);
}

// Places a picture so that its pixels are those of the screen.
void PlaceAt(double x, double y, Scene::Item& item) {
  const double scale_factor = item.picture.scale_factor();
  item.bounds.set_x(x);
  item.bounds.set_y(y);
  item.bounds.set_width(item.picture.width() / scale_factor);
  item.bounds.set_height(item.picture.height() / scale_factor);
}

bool CanBeSeen(const Scene::Item& item) {
  return !item.picture.is_empty() && item.opacity > 0 &&
         IsFinite(item.bounds) && item.bounds.width() > 0 &&
         item.bounds.height() > 0 &&
         (!item.clip.has_value() ||
          (IsFinite(*item.clip) && item.clip->width() > 0 &&
           item.clip->height() > 0));
}

}  // namespace

Scene::Scene(std::function<void()> on_changed)
    : on_changed_(std::move(on_changed)) {}

Scene::~Scene() = default;

void Scene::Serve(rpc::BrowserWidgetRpcClient& widget,
                  const BrowserId& browser) {
  Stop();
  streams_.push_back(widget.OnUpdateSurface(
      browser, [this](const rpc::UpdateSurfaceCall& call,
                      Responder<rpc::UpdateSurface> responder) {
        rpc::UpdateSurfaceResponse answer;
        *answer.mutable_receipt() = UpdateSurface(call);
        // Fails only if the widget has gone.
        std::move(responder).Respond(std::move(answer)).IgnoreError();
        on_changed_();
      }));
  streams_.push_back(widget.OnUpdateLayer(
      browser, [this](const rpc::UpdateLayerCall& call,
                      Responder<rpc::UpdateLayer> responder) {
        if (!AcceptsLayer(call)) {
          std::move(responder).Fail(
              absl::StrCat("there are ", kMaxLayers, " layers already"));
          return;
        }
        rpc::UpdateLayerResponse answer;
        UpdateLayer(call, answer);
        std::move(responder).Respond(std::move(answer)).IgnoreError();
        on_changed_();
      }));
  streams_.push_back(widget.WhenDropDownDeleted(
      browser, [this](const rpc::DropDownDeleted& event) {
        if (popups_.erase(event.popup_id()) != 0) on_changed_();
      }));
}

void Scene::Stop() {
  streams_.clear();
  layers_.clear();
  popups_.clear();
}

rpc::FrameReceipt Scene::UpdateSurface(const rpc::UpdateSurfaceCall& call) {
  if (!call.has_popup()) {
    const rpc::FrameReceipt receipt = Show(call.frame(), view_);
    PlaceAt(0, 0, view_);
    return receipt;
  }
  const std::uint64_t id = call.popup().popup_id();
  if (popups_.size() == kMaxPopups && !popups_.contains(id)) {
    return ReceiptFor(call.frame(),
                      absl::ResourceExhaustedError("too many popups"));
  }
  Item& popup = popups_[id];
  const rpc::FrameReceipt receipt = Show(call.frame(), popup);
  PlaceAt(call.popup().bounds().x(), call.popup().bounds().y(), popup);
  return receipt;
}

bool Scene::AcceptsLayer(const rpc::UpdateLayerCall& call) const {
  return layers_.size() < kMaxLayers || call.is_removed() ||
         std::any_of(layers_.begin(), layers_.end(), [&](const Layer& layer) {
           return layer.id == call.layer_id();
         });
}

void Scene::UpdateLayer(const rpc::UpdateLayerCall& call,
                        rpc::UpdateLayerResponse& answer) {
  auto layer = std::find_if(
      layers_.begin(), layers_.end(),
      [&](const Layer& known) { return known.id == call.layer_id(); });
  if (call.is_removed()) {
    if (layer != layers_.end()) layers_.erase(layer);
    return;
  }
  if (layer == layers_.end()) {
    layer = layers_.emplace(layer);
    layer->id = call.layer_id();
  }
  layer->z_order = call.z_order();
  Item& item = layer->item;
  item.bounds = call.bounds();
  item.clip.reset();
  if (call.has_clip()) item.clip = call.clip();
  const bool has_opacity =
      call.has_opacity() && call.opacity() >= 0 && call.opacity() <= 1;
  item.opacity = has_opacity ? static_cast<double>(call.opacity()) : 1;
  if (call.has_frame()) *answer.mutable_receipt() = Show(call.frame(), item);
}

std::vector<Scene::Item*> Scene::items() {
  std::vector<Layer*> layers;
  for (Layer& layer : layers_) layers.push_back(&layer);
  std::stable_sort(
      layers.begin(), layers.end(),
      [](const Layer* a, const Layer* b) { return a->z_order < b->z_order; });
  std::vector<Item*> items = {&view_};
  for (Layer* const layer : layers) items.push_back(&layer->item);
  for (auto& [id, popup] : popups_) items.push_back(&popup);
  std::erase_if(items, [](const Item* item) { return !CanBeSeen(*item); });
  return items;
}

}  // namespace orvane::host
