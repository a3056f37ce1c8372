// Keeps what a user types out of recordings.

#ifndef TOOLS_WIDGETCTL_TYPED_TEXT_H_
#define TOOLS_WIDGETCTL_TYPED_TEXT_H_

#include <cstdint>
#include <set>
#include <string>
#include <tuple>

#include "google/protobuf/message.h"

namespace widgetctl {

// Puts an x in the place of each character that is typed into a page or a
// dialog. Keys that type nothing, such as Enter, stay, and so do keys of ASCII
// pressed with Control or Meta, which are shortcuts; with Alt they may type
// other characters.
class TypedTextHider {
 public:
  // `message` is what the host of that connection says, in its order.
  void Hide(int connection, google::protobuf::Message* message);

  // What it has not released is never released.
  void OnEnded(int connection);

  // Whether text could be in there that cannot be told from the rest: a key
  // event in the platform's own form.
  static bool IsOpaque(const google::protobuf::Message& message);

 private:
  // Shortcuts whose keys are down, by connection, browser, code and key: they
  // are released as they were pressed, whatever else is held by then.
  std::set<std::tuple<int, std::uint64_t, std::string, std::string>> shortcuts_;
};

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_TYPED_TEXT_H_
