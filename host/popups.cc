#include "host/popups.h"

#include "absl/strings/str_cat.h"

namespace orvane::host {
namespace {

// A page whose origin says nothing about it has "null".
std::string NameOf(const rpc::CreateWebDialogCall& call) {
  const bool has_origin = !call.origin().empty() && call.origin() != "null";
  if (!call.is_embedded_cross_origin())
    return has_origin ? call.origin() : "This page";
  return has_origin ? absl::StrCat(call.origin(), ", a part of this page,")
                    : "A part of this page";
}

std::string TitleOf(const rpc::FileDialog& file, const std::string& page) {
  if (!file.title().empty()) return file.title();
  switch (file.mode()) {
    case rpc::FILE_DIALOG_MODE_OPEN_MULTIPLE:
      return absl::StrCat(page, " asks for files");
    case rpc::FILE_DIALOG_MODE_OPEN_DIRECTORY:
      return absl::StrCat(page, " asks for a folder");
    case rpc::FILE_DIALOG_MODE_SAVE:
      return absl::StrCat(page, " saves a file");
    default:
      return absl::StrCat(page, " asks for a file");
  }
}

}  // namespace

bool CanBeChosen(const rpc::DropDownItem& item) {
  return item.type() != rpc::DROP_DOWN_ITEM_TYPE_GROUP &&
         item.type() != rpc::DROP_DOWN_ITEM_TYPE_SEPARATOR &&
         !item.is_disabled();
}

std::string DialogTitleOf(const rpc::CreateWebDialogCall& call) {
  switch (call.dialog_case()) {
    case rpc::CreateWebDialogCall::kBeforeUnload:
      return call.before_unload().is_reload() ? "Reload this page?"
                                              : "Leave this page?";
    case rpc::CreateWebDialogCall::kFile:
      return TitleOf(call.file(), NameOf(call));
    case rpc::CreateWebDialogCall::kColor:
      return absl::StrCat(NameOf(call), " asks for a colour");
    default:
      return absl::StrCat(NameOf(call), " says");
  }
}

std::optional<Question> QuestionOf(const rpc::CreateWebDialogCall& call) {
  Question question;
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
    case rpc::CreateWebDialogCall::kBeforeUnload:
      question.message = "What you have entered may be lost.";
      question.accept = call.before_unload().is_reload() ? "Reload" : "Leave";
      return question;
    default:
      return std::nullopt;
  }
}

}  // namespace orvane::host
