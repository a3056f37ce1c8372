#include "host/touch.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "host/finite.h"

namespace orvane::host {

Touch::Touch(InputCalls* calls) : calls_(calls) {}

std::int32_t Touch::UnusedId() const {
  std::int32_t id = 0;
  while (std::any_of(fingers_.begin(), fingers_.end(), [id](const auto& entry) {
    return entry.second.id() == id;
  })) {
    ++id;
  }
  return id;
}

void Touch::Update(rpc::TouchPoint point, rpc::TouchPoint& finger) {
  if (!IsFinite(point.position()))
    *point.mutable_position() = finger.position();
  if (!IsFinite(point.screen_position())) point.clear_screen_position();
  if (!std::isfinite(point.radius_x_dip())) point.clear_radius_x_dip();
  if (!std::isfinite(point.radius_y_dip())) point.clear_radius_y_dip();
  if (!std::isfinite(point.rotation_deg())) point.clear_rotation_deg();
  if (!std::isfinite(point.force())) point.clear_force();
  point.set_id(finger.id());
  point.set_is_primary(finger.is_primary());
  finger = std::move(point);
}

template <typename Request>
Request Touch::NewRequest(const rpc::InputInfo& input) const {
  Request request;
  *request.mutable_input() = input;
  for (const auto& [contact, finger] : fingers_)
    *request.add_active_points() = finger;
  return request;
}

void Touch::Start(const rpc::InputInfo& input, std::uint64_t contact,
                  rpc::TouchPoint point) {
  Cancel(input, contact);
  if (!IsFinite(point.position())) return;
  latest_input_ = input;
  rpc::TouchPoint finger;
  finger.set_id(UnusedId());
  finger.set_is_primary(fingers_.empty());
  Update(std::move(point), finger);
  fingers_[contact] = finger;
  auto request = NewRequest<rpc::TouchStartRequest>(input);
  *request.add_changed_points() = std::move(finger);
  calls_->Send(&InputCalls::Client::ForwardTouchStart, std::move(request));
}

void Touch::Move(const rpc::InputInfo& input, std::uint64_t contact,
                 rpc::TouchPoint point) {
  const auto finger = fingers_.find(contact);
  if (finger == fingers_.end()) return;
  latest_input_ = input;
  Update(std::move(point), finger->second);
  auto request = NewRequest<rpc::TouchMoveRequest>(input);
  *request.add_changed_points() = finger->second;
  calls_->Move(std::move(request));
}

void Touch::End(const rpc::InputInfo& input, std::uint64_t contact,
                rpc::TouchPoint point) {
  auto finger = fingers_.extract(contact);
  if (finger.empty()) return;
  latest_input_ = input;
  Update(std::move(point), finger.mapped());
  auto request = NewRequest<rpc::TouchEndRequest>(input);
  *request.add_changed_points() = std::move(finger.mapped());
  calls_->Send(&InputCalls::Client::ForwardTouchEnd, std::move(request));
}

void Touch::Cancel(const rpc::InputInfo& input, std::uint64_t contact) {
  auto finger = fingers_.extract(contact);
  if (finger.empty()) return;
  latest_input_ = input;
  auto request = NewRequest<rpc::TouchCancelRequest>(input);
  *request.add_changed_points() = std::move(finger.mapped());
  calls_->Send(&InputCalls::Client::ForwardTouchCancel, std::move(request));
}

void Touch::CancelAll() {
  if (fingers_.empty()) return;
  rpc::TouchCancelRequest request;
  *request.mutable_input() = latest_input_;
  for (auto& [contact, finger] : fingers_)
    *request.add_changed_points() = std::move(finger);
  fingers_.clear();
  calls_->Send(&InputCalls::Client::ForwardTouchCancel, std::move(request));
}

}  // namespace orvane::host
