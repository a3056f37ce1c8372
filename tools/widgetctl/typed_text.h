// Keeps what a user types out of recordings.

#ifndef TOOLS_WIDGETCTL_TYPED_TEXT_H_
#define TOOLS_WIDGETCTL_TYPED_TEXT_H_

#include <cstdint>
#include <set>
#include <string>
#include <utility>

#include "google/protobuf/message.h"

namespace widgetctl {

// Puts an x in the place of each character that is typed into a page or a
// dialog. Named keys, such as Enter, stay, and so do keys pressed with Control,
// Alt or Meta, which are shortcuts.
class TypedTextHider {
 public:
  // `message` is what a host says, in its order.
  void Hide(google::protobuf::Message* message);

  // Whether text could be in there that cannot be told from the rest: a key
  // event in the platform's own form.
  static bool IsOpaque(const google::protobuf::Message& message);

 private:
  // Shortcuts whose keys are down, by browser and code: they are released as
  // they were pressed, whatever else is held by then.
  std::set<std::pair<std::uint64_t, std::string>> shortcuts_;
};

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_TYPED_TEXT_H_
