// What a page opens over itself and the host shows: lists and dialogs.

#ifndef HOST_POPUPS_H_
#define HOST_POPUPS_H_

#include <optional>
#include <string>

#include "rpc/browser/drop_down.pb.h"
#include "rpc/browser/web_dialog.pb.h"

namespace orvane::host {

// Whether the user may choose this line of a list.
bool CanBeChosen(const rpc::DropDownItem& item);

// The title for a dialog of any kind. It names the page, so that users do not
// take its words for the window's.
std::string DialogTitleOf(const rpc::CreateWebDialogCall& call);

// A dialog with a text, one or two buttons, and perhaps a line to fill in.
// Nothing in it is markup; toolkits that take labels for it must be told.
struct Question {
  std::string message;                // "\n" separates lines. May be empty.
  std::string accept;                 // The label of the button that accepts.
  std::string decline;                // Empty: there is no such button.
  std::optional<std::string> answer;  // What the line holds at first.
};

// What an alert, confirm, prompt or before-unload dialog asks. Nothing for
// files and colours, for which toolkits have dialogs of their own, and for
// dialogs that this version does not know: these are not accepted.
std::optional<Question> QuestionOf(const rpc::CreateWebDialogCall& call);

}  // namespace orvane::host

#endif  // HOST_POPUPS_H_
