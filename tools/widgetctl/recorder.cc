#include "tools/widgetctl/recorder.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "absl/strings/str_replace.h"
#include "absl/time/clock.h"

#include "rpc/browser/browser_id.pb.h"
#include "tools/widgetctl/json.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"
#include "zimbrel/src/core/common/rpc/printable.h"

namespace widgetctl {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using orvane::MethodKind;

constexpr absl::Duration kPauseToTell = absl::Milliseconds(100);

// A line that waits for its answer holds back those behind it. So many are
// lost if this process is killed.
constexpr std::size_t kMaxHeldLines = 1000;

bool HasBytes(const Descriptor* type, std::set<const Descriptor*>& seen) {
  if (!seen.insert(type).second) return false;
  for (int i = 0; i < type->field_count(); ++i) {
    const FieldDescriptor* const field = type->field(i);
    if (field->type() == FieldDescriptor::TYPE_BYTES) return true;
    if (field->message_type() != nullptr &&
        HasBytes(field->message_type(), seen))
      return true;
  }
  return false;
}

bool HasPictures(const MethodDescriptor& method) {
  std::set<const Descriptor*> seen;
  return orvane::KindOf(method) == MethodKind::kCallbackStream &&
         HasBytes(method.output_type(), seen);
}

const Message& Member(const Message& message, const char* field) {
  return message.GetReflection()->GetMessage(
      message, message.GetDescriptor()->FindFieldByName(field));
}

// As a line names it: a browser by its number.
std::string KeyText(const Message& key) {
  if (key.GetDescriptor() == BrowserId::descriptor())
    return absl::StrCat(static_cast<const BrowserId&>(key).value());
  return ToJson(key);
}

// What stands behind the arrow for a failed call. Empty if a line cannot tell
// it, or if a terminal that shows the file would obey it.
std::string ErrorText(const std::string& text) {
  return orvane::Printable(text) == text ? absl::StrCat("error: ", text) : "";
}

// Removes what `is_varying` says from the message and all in it. True if
// something was there.
template <typename Predicate>
bool RemoveFields(Message* message, const Predicate& is_varying) {
  const google::protobuf::Reflection& fields = *message->GetReflection();
  std::vector<const FieldDescriptor*> present;
  fields.ListFields(*message, &present);
  bool has_removed = false;
  for (const FieldDescriptor* const field : present) {
    if (is_varying(*field)) {
      fields.ClearField(message, field);
      has_removed = true;
    } else if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
      const int count =
          field->is_repeated() ? fields.FieldSize(*message, field) : 1;
      for (int i = 0; i < count; ++i) {
        has_removed |=
            RemoveFields(field->is_repeated()
                             ? fields.MutableRepeatedMessage(message, field, i)
                             : fields.MutableMessage(message, field),
                         is_varying);
      }
    }
  }
  return has_removed;
}

// Writes "${path}" in place of each whole number in `json` that `call` has in a
// field of the same name, which `path` leads to.
void TakeOverNumbers(const Message& call, const std::string& path,
                     std::string* json) {
  const google::protobuf::Reflection& fields = *call.GetReflection();
  std::vector<const FieldDescriptor*> present;
  fields.ListFields(call, &present);
  for (const FieldDescriptor* const field : present) {
    if (field->is_repeated()) continue;
    const std::string name(field->json_name());
    const std::string place =
        path.empty() ? name : absl::StrCat(path, ".", name);
    std::string value;
    switch (field->cpp_type()) {
      case FieldDescriptor::CPPTYPE_MESSAGE:
        TakeOverNumbers(fields.GetMessage(call, field), place, json);
        continue;
      case FieldDescriptor::CPPTYPE_UINT64:
        value = absl::StrCat("\"", fields.GetUInt64(call, field), "\"");
        break;
      case FieldDescriptor::CPPTYPE_INT64:
        value = absl::StrCat("\"", fields.GetInt64(call, field), "\"");
        break;
      case FieldDescriptor::CPPTYPE_UINT32:
        value = absl::StrCat(fields.GetUInt32(call, field));
        break;
      case FieldDescriptor::CPPTYPE_INT32:
        value = absl::StrCat(fields.GetInt32(call, field));
        break;
      default:
        continue;
    }
    for (const char* const after : {",", "}"}) {
      absl::StrReplaceAll(
          {{absl::StrCat("\"", name, "\":", value, after),
            absl::StrCat("\"", name, "\":\"${", place, "}\"", after)}},
          json);
    }
  }
}

}  // namespace

Recorder::Recorder(RecorderOptions options, std::ostream* file)
    : options_(std::move(options)), file_(file) {}

// Lines ----------------------------------------------------------------------

Recorder::Line* Recorder::Begin(int connection, absl::string_view text) {
  spoke_.insert(connection);
  lines_.push_back({connection == 1 ? std::string(text)
                                    : absl::StrCat("@", connection, " ", text),
                    false});
  return &lines_.back();
}

void Recorder::Write(int connection, absl::string_view text) {
  Begin(connection, text)->is_complete = true;
}

void Recorder::CompleteUnanswered(Line* call) {
  call->text = absl::StrCat("# without an answer: ", call->text);
  call->is_complete = true;
}

// Before the host does something.
void Recorder::TellWhen() {
  const absl::Duration now = absl::Now() - begun_;
  if (now - told_ < kPauseToTell) return;
  told_ = now;
  lines_.push_back(
      {absl::StrFormat("# %.1f s", absl::ToDoubleSeconds(now)), true});
}

void Recorder::TellWhatTheHostKnows() {
  for (const auto& [of, event] : latest_events_) {
    const auto& [connection, method, browser] = of;
    Write(connection,
          absl::StrCat("event ", method->name(), " ", ToJson(*event)));
  }
  latest_events_.clear();
  for (const auto& [connection, line] : first_pictures_)
    Write(connection, line);
  first_pictures_.clear();
}

void Recorder::Allow(int connection, Method method) {
  if (allowed_.emplace(connection, method).second)
    Write(connection, absl::StrCat("allow ", method->name()));
}

bool Recorder::Clean(Message* message) const {
  return RemoveFields(message, [this](const FieldDescriptor& field) {
    return field.type() == FieldDescriptor::TYPE_BYTES ||
           absl::EndsWith(field.name(), "time_ns") ||
           options_.varying.contains(std::string(field.json_name()));
  });
}

void Recorder::OnPause() {
  while (!lines_.empty() &&
         (lines_.front().is_complete || lines_.size() > kMaxHeldLines)) {
    if (!lines_.front().is_complete) AwaitNoAnswer(&lines_.front());
    *file_ << lines_.front().text << '\n';
    lines_.pop_front();
  }
  file_->flush();
}

void Recorder::AwaitNoAnswer(Line* line) {
  const auto is_about_it = [line](const auto& entry) {
    return entry.second == line;
  };
  if (std::erase_if(calls_, is_about_it) > 0) CompleteUnanswered(line);
  for (auto& [id, stream] : streams_)
    std::erase_if(stream.unanswered, is_about_it);
}

void Recorder::Finish() {
  TellWhatTheHostKnows();
  for (const auto& [id, line] : calls_) CompleteUnanswered(line);
  for (Line& line : lines_) line.is_complete = true;
  OnPause();
}

// What is said ---------------------------------------------------------------

void Recorder::OnSaid(int connection, Said said) {
  if (said.method == nullptr) return OnUnknown(connection, said);
  const auto found = streams_.find({connection, said.stream});
  Stream* const stream = found == streams_.end() ? nullptr : &found->second;
  if (said.what == "event") return OnEvent(connection, std::move(said));
  if (said.from == Side::kWidget && said.what == "call") {
    if (stream != nullptr) OnWidgetsCall(std::move(said), *stream);
    return;
  }
  // Pictures are given back without a thought.
  if (said.from == Side::kHost && (stream == nullptr || !stream->has_pictures))
    TellWhatTheHostKnows();
  if (said.what == "call") {
    OnCall(connection, said);
  } else if (said.what == "subscribe") {
    OnSubscribed(connection, said);
  } else if (said.what == "unsubscribe") {
    OnUnsubscribed(connection, said);
  } else if (said.what == "complete") {
    if (said.from == Side::kHost) EndStream(connection, said.stream);
  } else if (orvane::KindOf(*said.method) == MethodKind::kUnary) {
    OnCallEnded(connection, said);
  } else if (said.call.has_value() && stream != nullptr) {
    OnWidgetsCallEnded(connection, std::move(said), *stream);
  }
}

// What cannot be played back is a remark at least.
void Recorder::OnUnknown(int connection, const Said& said) {
  if (said.what == "call" || said.what == "open") {
    Write(connection,
          absl::StrCat("# a ", said.what == "call" ? "call" : "stream",
                       " of a method that is not known here"));
  } else if (said.what == "unreadable") {
    Write(connection, absl::StrCat("# what follows cannot be read: ",
                                   orvane::Printable(said.error)));
  }
}

void Recorder::OnEnded(int connection) {
  for (auto call = calls_.lower_bound({connection, 0});
       call != calls_.end() && call->first.first == connection;) {
    CompleteUnanswered(call->second);
    call = calls_.erase(call);
  }
  // Their lines wait for an answer that does not come any more.
  for (auto stream = streams_.lower_bound({connection, 0});
       stream != streams_.end() && stream->first.first == connection;) {
    for (const auto& [browser, line] : stream->second.unanswered)
      line->is_complete = true;
    stream = streams_.erase(stream);
  }
  std::erase_if(subscribed_, [&](const auto& entry) {
    return std::get<0>(entry.first) == connection;
  });
  std::erase_if(allowed_,
                [&](const auto& entry) { return entry.first == connection; });
  hider_.OnEnded(connection);
  std::erase_if(first_pictures_, [&](const auto& picture) {
    return picture.first == connection;
  });
  std::erase_if(latest_events_, [&](const auto& entry) {
    return std::get<0>(entry.first) == connection;
  });
  if (spoke_.contains(connection)) Write(connection, "disconnect");
  OnPause();
}

// The host's calls -----------------------------------------------------------

void Recorder::OnCall(int connection, const Said& said) {
  if (said.payload == nullptr) {
    return Write(connection,
                 absl::StrCat("# ", said.method->name(), " cannot be read"));
  }
  TellWhen();
  if (!options_.has_text) {
    if (TypedTextHider::IsOpaque(*said.payload)) {
      Write(connection, absl::StrCat("# ", said.method->name(),
                                     " is left out, since it may tell what is "
                                     "typed: see --text"));
      return;
    }
    hider_.Hide(connection, said.payload.get());
  }
  calls_[{connection, said.stream}] =
      Begin(connection,
            absl::StrCat(said.method->name(), " ", ToJson(*said.payload)));
}

void Recorder::OnCallEnded(int connection, const Said& said) {
  const auto call = calls_.find({connection, said.stream});
  if (call == calls_.end()) return;
  Line* const line = call->second;
  calls_.erase(call);
  if (said.what == "reply" && said.payload != nullptr) {
    const bool varies = Clean(said.payload.get());
    absl::StrAppend(&line->text, varies ? " =~ " : " => ",
                    ToJson(*said.payload));
  } else if (said.what == "error" && !ErrorText(said.error).empty()) {
    absl::StrAppend(&line->text, " => ", ErrorText(said.error));
  } else if (said.what == "error") {
    line->text = absl::StrCat("# failed with a text that no line can hold: ",
                              line->text);
  } else {
    return CompleteUnanswered(line);
  }
  line->is_complete = true;
}

// Streams --------------------------------------------------------------------

void Recorder::OnSubscribed(int connection, const Said& said) {
  if (said.payload == nullptr) return;
  Stream& stream = streams_[{connection, said.stream}];
  stream.method = said.method;
  stream.has_pictures = HasPictures(*said.method);
  const std::string key = KeyText(*said.payload);
  if (!stream.keys.insert(key).second) return;
  auto& streams = subscribed_[{connection, said.method, key}];
  streams.insert(said.stream);
  if (streams.size() > 1) return;
  const bool has_events =
      orvane::KindOf(*said.method) == MethodKind::kEventStream;
  const std::string name(said.method->name());
  if (stream.has_pictures || options_.varying.contains(name))
    Allow(connection, said.method);
  TellWhen();
  Line* const line =
      Begin(connection,
            absl::StrCat(has_events ? "watch " : "serve ", name, " ", key));
  line->is_complete = !stream.has_pictures;
  if (stream.has_pictures) stream.unanswered[said.browser] = line;
}

void Recorder::OnUnsubscribed(int connection, const Said& said) {
  const auto stream = streams_.find({connection, said.stream});
  if (stream == streams_.end() || said.payload == nullptr) return;
  const std::string key = KeyText(*said.payload);
  if (stream->second.keys.erase(key) == 0) return;
  const auto unanswered = stream->second.unanswered.find(said.browser);
  if (unanswered != stream->second.unanswered.end()) {
    unanswered->second->is_complete = true;
    stream->second.unanswered.erase(unanswered);
  }
  TellWhen();
  EndSubscription(connection, said.stream, said.method, key);
}

void Recorder::EndStream(int connection, std::uint64_t id) {
  const auto stream = streams_.find({connection, id});
  if (stream == streams_.end()) return;
  for (const auto& [browser, line] : stream->second.unanswered)
    line->is_complete = true;
  TellWhen();
  for (const std::string& key : stream->second.keys)
    EndSubscription(connection, id, stream->second.method, key);
  streams_.erase(stream);
}

void Recorder::EndSubscription(int connection, std::uint64_t stream,
                               Method method, const std::string& key) {
  const auto subscribed = subscribed_.find({connection, method, key});
  subscribed->second.erase(stream);
  if (!subscribed->second.empty()) return;
  subscribed_.erase(subscribed);
  Write(connection, absl::StrCat("end ", method->name(), " ", key));
}

void Recorder::OnEvent(int connection, Said said) {
  if (said.payload == nullptr ||
      !streams_.contains({connection, said.stream})) {
    return;
  }
  if (said.browser.has_value()) {
    const auto subscribed = subscribed_.find(
        {connection, said.method, absl::StrCat(*said.browser)});
    if (subscribed != subscribed_.end() &&
        *subscribed->second.begin() != said.stream)
      return;
  }
  Clean(said.payload.get());
  if (allowed_.contains({connection, said.method})) {
    latest_events_[{connection, said.method, said.browser}] =
        std::move(said.payload);
  } else {
    Write(connection, absl::StrCat("event ", said.method->name(), " ",
                                   ToJson(*said.payload)));
  }
}

// The widget's calls ---------------------------------------------------------

void Recorder::OnWidgetsCall(Said said, Stream& stream) {
  if (said.payload == nullptr || !said.call.has_value()) return;
  if (stream.has_pictures && !stream.unanswered.contains(said.browser)) return;
  stream.calls.insert_or_assign(
      {*said.call, said.browser},
      WidgetsCall{said.method, std::move(said.payload)});
}

// Answered or failed by the host, or given up by the widget.
void Recorder::OnWidgetsCallEnded(int connection, Said said, Stream& stream) {
  // Which browser's is not always known, as it is not in CANCEL.
  const auto found = std::find_if(
      stream.calls.begin(), stream.calls.end(), [&said](const auto& call) {
        return call.first.first == *said.call &&
               (!said.browser.has_value() || call.first.second == said.browser);
      });
  if (found == stream.calls.end()) return;
  const Browser browser = found->first.second;
  const WidgetsCall call = std::move(found->second);
  stream.calls.erase(found);

  std::string answer;
  if (said.what == "answer" && said.payload != nullptr) {
    if (!options_.has_text) hider_.Hide(connection, said.payload.get());
    answer = ToJson(Member(*said.payload, orvane::kResponseField));
  } else if (said.what == "error") {
    answer = ErrorText(said.error);
  }
  if (!stream.has_pictures) {
    if (said.from == Side::kHost) TellWhen();
    Clean(call.message.get());
    Write(connection, absl::StrCat("called ", said.method->name(), " ",
                                   ToJson(*call.message),
                                   answer.empty() ? "" : " => ", answer));
    return;
  }
  const auto line = stream.unanswered.find(browser);
  if (line == stream.unanswered.end() || answer.empty()) return;
  if (said.what == "answer") {
    std::unique_ptr<Message> response(said.payload->New());
    response->CopyFrom(*said.payload);
    Clean(response.get());
    answer = ToJson(Member(*response, orvane::kResponseField));
    TakeOverNumbers(Member(*call.message, orvane::kCallField), "", &answer);
  }
  absl::StrAppend(&line->second->text, " => ", answer);
  line->second->is_complete = true;
  stream.unanswered.erase(line);
  RemoveFields(call.message.get(), [](const FieldDescriptor& field) {
    return field.name() == orvane::kCallField;
  });
  first_pictures_.emplace_back(
      connection,
      absl::StrCat("called ", said.method->name(), " ", ToJson(*call.message)));
  std::erase_if(stream.calls, [&](const auto& other) {
    return other.first.second == browser;
  });
}

}  // namespace widgetctl
