// Fingers on a touch screen.

#ifndef HOST_TOUCH_H_
#define HOST_TOUCH_H_

#include <cstdint>
#include <map>

#include "host/input_calls.h"
#include "rpc/browser/input.pb.h"
#include "rpc/browser/touch.pb.h"

namespace orvane::host {

// Turns what a toolkit reports of single fingers into touch calls, each with
// all fingers that are down. Reports of fingers that did not come down on the
// view are ignored.
//
// `contact` is whatever the toolkit tells fingers apart by: the address of a
// GdkEventSequence, the id of a QEventPoint, an SDL_FingerID. Of a point, `id`
// and `is_primary` are filled in. A position that is not a number counts as
// unchanged, and a finger that comes down there is ignored; anything else that
// is not a number counts as not told.
//
// Thread: the service thread. Lifetime: `calls` outlives this object.
class Touch {
 public:
  explicit Touch(InputCalls* calls);
  Touch(const Touch&) = delete;
  Touch& operator=(const Touch&) = delete;

  // The first finger is primary; pages see it as a mouse too. A contact that is
  // down already was lost by the toolkit, and is cancelled first.
  void Start(const rpc::InputInfo& input, std::uint64_t contact,
             rpc::TouchPoint point);
  void Move(const rpc::InputInfo& input, std::uint64_t contact,
            rpc::TouchPoint point);
  void End(const rpc::InputInfo& input, std::uint64_t contact,
           rpc::TouchPoint point);

  // The toolkit needs the contact for a gesture of its own.
  void Cancel(const rpc::InputInfo& input, std::uint64_t contact);

  // Cancels all contacts; call it when the view is hidden, unmapped or
  // detached, since no end may be reported then.
  void CancelAll();

 private:
  using Fingers = std::map<std::uint64_t, rpc::TouchPoint>;  // By contact.

  std::int32_t UnusedId() const;

  // Replaces what is known of a finger, except what this class fills in.
  static void Update(rpc::TouchPoint point, rpc::TouchPoint& finger);

  // A request whose active points are the fingers that are down.
  template <typename Request>
  Request NewRequest(const rpc::InputInfo& input) const;

  InputCalls* const calls_;
  Fingers fingers_;
  rpc::InputInfo latest_input_;
};

}  // namespace orvane::host

#endif  // HOST_TOUCH_H_
