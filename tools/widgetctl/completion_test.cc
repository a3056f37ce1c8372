#include "tools/widgetctl/completion.h"

#include <string>
#include <vector>

#include "absl/strings/string_view.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/browser/page.rpc.h"

namespace widgetctl {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

std::vector<std::string> After(absl::string_view line) {
  const google::protobuf::ServiceDescriptor* const services[] = {
      rpc::BrowserWidgetRpc::descriptor(), rpc::PageRpc::descriptor()};
  const CompletedCommand commands[] = {
      {"call", ""},
      {"describe", ""},
      {"run", ""},
      {"serve", "(--reply JSON | --fail TEXT) [--count N]"},
      {"watch", ""}};
  return Continuations(services, commands, line);
}

TEST(Completion, OfNothingAreTheCommands) {
  EXPECT_THAT(After("widgetctl "),
              ElementsAre("call ", "describe ", "run ", "serve ", "watch "));
}

TEST(Completion, FinishesACommand) {
  EXPECT_THAT(After("widgetctl ca"), ElementsAre("ll "));
  EXPECT_THAT(After("widgetctl --socket /a/b ca"), ElementsAre("ll "));
  EXPECT_THAT(After("widgetctl --json ca"), ElementsAre("ll "));
}

TEST(Completion, OffersMethodsOfTheCommandsKind) {
  EXPECT_THAT(After("widgetctl call Sho"), ElementsAre("w "));
  EXPECT_THAT(After("widgetctl watch Sho"), IsEmpty());
  EXPECT_THAT(After("widgetctl watch WhenC"), ElementsAre("ursorChanged "));
  EXPECT_THAT(After("widgetctl serve OnT"), ElementsAre("akeFocus "));
}

TEST(Completion, OffersMethodsOfEachService) {
  EXPECT_THAT(After("widgetctl call Relo"), ElementsAre("ad "));
}

TEST(Completion, DescribesMethodsMessagesAndEnums) {
  EXPECT_THAT(After("widgetctl describe FocusRe"),
              ElementsAre("ason ", "quest "));
}

TEST(Completion, OffersTheOptionsOfTheCommand) {
  EXPECT_THAT(After("widgetctl serve --re"), ElementsAre("ply "));
  EXPECT_THAT(After("widgetctl watch --re"), IsEmpty());
  EXPECT_THAT(After("widgetctl --so"), ElementsAre("cket "));
}

TEST(Completion, OffersTheValuesOfOptions) {
  EXPECT_THAT(After("widgetctl --service Pag"), ElementsAre("eRpc "));
  EXPECT_THAT(After("widgetctl --method Sho"), ElementsAre("w "));
}

TEST(Completion, LeavesFilesToTheShell) {
  EXPECT_THAT(After("widgetctl run "), IsEmpty());
  EXPECT_THAT(After("widgetctl --socket "), IsEmpty());
}

TEST(Completion, BeginsAQuotedRequest) {
  EXPECT_THAT(After("widgetctl call Show "), ElementsAre("'{"));
}

TEST(Completion, OffersTheFieldsOfARequest) {
  EXPECT_THAT(After("widgetctl call Focus '{"),
              ElementsAre("\"browserId\": ", "\"reason\": "));
  EXPECT_THAT(After("widgetctl call Focus '{\"bro"), ElementsAre("wserId\": "));
}

TEST(Completion, OffersTheFieldsOfAKeyAndOfAReply) {
  EXPECT_THAT(After("widgetctl watch WhenCursorChanged '{"),
              ElementsAre("\"value\": "));
  EXPECT_THAT(After("widgetctl serve OnTakeFocus 1 --reply '{"),
              ElementsAre("\"taken\": "));
}

TEST(Completion, EscapesQuotesInsideDoubleOnes) {
  EXPECT_THAT(After("widgetctl call Show \"{"), ElementsAre("\\\"value\\\": "));
  EXPECT_THAT(After("widgetctl call Show \"{\\\"va"), ElementsAre("lue\\\": "));
}

TEST(Completion, OfAnUnknownMethodIsNothing) {
  EXPECT_THAT(After("widgetctl call Nothing '{"), IsEmpty());
}

std::vector<std::string> Json(absl::string_view json) {
  return JsonContinuations(*rpc::KeyPressRequest::descriptor(), json);
}

TEST(JsonCompletion, KnowsFieldsOfFields) {
  EXPECT_THAT(Json("{\"key\": {\"windows"), ElementsAre("KeyCode\": "));
  EXPECT_THAT(Json("{\"browserId\": {\"value\": 1}, \"input\": {\"time"),
              ElementsAre("Ns\": "));
}

TEST(JsonCompletion, OffersAFieldOnce) {
  EXPECT_THAT(Json("{\"key\": {\"key\": \"a\", "), Not(Contains("\"key\": ")));
}

TEST(JsonCompletion, OffersTheValuesOfAnEnum) {
  EXPECT_THAT(Json("{\"key\": {\"location\": \"KEY_LOCATION_L"),
              ElementsAre("EFT\""));
  EXPECT_THAT(
      Json("{\"key\": {\"location\": "),
      ElementsAre("\"KEY_LOCATION_LEFT\"", "\"KEY_LOCATION_NUMPAD\"",
                  "\"KEY_LOCATION_RIGHT\"", "\"KEY_LOCATION_STANDARD\""));
}

TEST(JsonCompletion, KnowsHowAValueBegins) {
  EXPECT_THAT(Json("{\"key\": "), ElementsAre("{"));
  EXPECT_THAT(Json("{\"key\": {\"code\": "), ElementsAre("\""));
  EXPECT_THAT(Json("{\"isAutoRepeat\": "), ElementsAre("false", "true"));
  EXPECT_THAT(Json("{\"isAutoRepeat\": t"), ElementsAre("rue"));
  EXPECT_THAT(Json("{\"key\": {\"windowsKeyCode\": "), IsEmpty());
}

TEST(JsonCompletion, GoesOnBehindAValue) {
  EXPECT_THAT(Json("{\"key\": {\"code\": \"a}\\\"\""), ElementsAre(", ", "}"));
  EXPECT_THAT(Json("{\"key\""), ElementsAre(": "));
}

TEST(JsonCompletion, KnowsLists) {
  const auto& start = *rpc::TouchStartRequest::descriptor();
  EXPECT_THAT(JsonContinuations(start, "{\"changedPoints\": "),
              ElementsAre("["));
  EXPECT_THAT(JsonContinuations(start, "{\"changedPoints\": ["),
              ElementsAre("{"));
  EXPECT_THAT(JsonContinuations(
                  start, "{\"changedPoints\": [{\"isPrimary\": true}, {\"isP"),
              ElementsAre("rimary\": "));
  EXPECT_THAT(JsonContinuations(start, "{\"changedPoints\": [{\"id\": 1}"),
              ElementsAre(", ", "]"));
}

TEST(JsonCompletion, OfAWholeMessageIsNothing) {
  EXPECT_THAT(Json("{\"isAutoRepeat\": true}"), IsEmpty());
}

TEST(JsonCompletion, OfNonsenseIsNothing) {
  for (const char* const json :
       {"}", "]", "{]", "{,", "{\"nothing\": ", "{\"isAutoRepeat\": {\"",
        "{\"key\": [}", "{\"key\" 1", ",,"})
    EXPECT_THAT(Json(json), IsEmpty()) << json;
}

}  // namespace
}  // namespace widgetctl
