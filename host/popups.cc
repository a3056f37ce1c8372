#include "host/popups.h"

#include "absl/strings/str_cat.h"

namespace orvane::host {
namespace {

// A page whose origin says nothing about it has "null".
std::string TitleOf(const rpc::CreateWebDialogCall& call) {
  const bool has_origin = !call.origin().empty() && call.origin() != "null";
  const std::string page = has_origin ? call.origin() : "This page";
  return call.is_embedded_cross_origin()
             ? absl::StrCat(page, ", a part of this page, says")
             : absl::StrCat(page, " says");
}

}  // namespace

bool CanBeChosen(const rpc::DropDownItem& item) {
  return item.type() != rpc::DROP_DOWN_ITEM_TYPE_GROUP &&
         item.type() != rpc::DROP_DOWN_ITEM_TYPE_SEPARATOR &&
         !item.is_disabled();
}

std::optional<Question> QuestionOf(const rpc::CreateWebDialogCall& call) {
  Question question;
  question.title = TitleOf(call);
  question.accept = "OK";
  question.decline = "Cancel";
  switch (call.dialog_case()) {
    case rpc::CreateWebDialogCall::kAlert:
      question.message = call.alert().message();
      question.decline = "";
      return question;
    case rpc::CreateWebDialogCall::kConfirm:
      question.message = call.confirm().message();
      return question;
    case rpc::CreateWebDialogCall::kPrompt:
      question.message = call.prompt().message();
      question.answer = call.prompt().default_text();
      return question;
    case rpc::CreateWebDialogCall::kBeforeUnload: {
      const bool is_reload = call.before_unload().is_reload();
      question.title = is_reload ? "Reload this page?" : "Leave this page?";
      question.message = "What you have entered may be lost.";
      question.accept = is_reload ? "Reload" : "Leave";
      return question;
    }
    default:
      return std::nullopt;
  }
}

}  // namespace orvane::host
