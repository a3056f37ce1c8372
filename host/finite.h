// Numbers from toolkits, which may be NaN.

#ifndef HOST_FINITE_H_
#define HOST_FINITE_H_

#include <cmath>

#include "rpc/browser/geometry.pb.h"

namespace orvane::host {

inline bool IsFinite(const rpc::PointDip& point) {
  return std::isfinite(point.x()) && std::isfinite(point.y());
}

inline bool IsFinite(const rpc::VectorDip& vector) {
  return std::isfinite(vector.dx()) && std::isfinite(vector.dy());
}

inline bool IsFinite(const rpc::RectDip& rect) {
  return std::isfinite(rect.x()) && std::isfinite(rect.y()) &&
         std::isfinite(rect.width()) && std::isfinite(rect.height());
}

}  // namespace orvane::host

#endif  // HOST_FINITE_H_
