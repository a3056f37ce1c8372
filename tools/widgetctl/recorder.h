// Turns what hosts and a widget say into the lines of a session file.

#ifndef TOOLS_WIDGETCTL_RECORDER_H_
#define TOOLS_WIDGETCTL_RECORDER_H_

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/string_view.h"
#include "absl/time/clock.h"
#include "absl/time/time.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "tools/widgetctl/conversation.h"
#include "tools/widgetctl/interceptor.h"
#include "tools/widgetctl/typed_text.h"

namespace widgetctl {

struct RecorderOptions {
  // Names of fields, as in JSON, that differ from run to run: they are left out
  // of what the widget says. And of event streams: only the latest event before
  // the host does something is expected.
  std::set<std::string> varying;

  // Without it, what a user types is hidden.
  bool has_text = false;
};

// Writes a line once it is known how it ends and all lines before it are
// written. Calls that have no answer at the end become remarks.
//
// Of what the widget says, bytes (pictures, tokens) and times are left out. The
// calls of a stream with pictures are answered alike, with the ids of each
// call, and need not be as many.
class Recorder : public Listener {
 public:
  // The file outlives the recorder.
  Recorder(RecorderOptions options, std::ostream* file);

  void OnConnected(int, const absl::Status&) override {}
  void OnSaid(int connection, Said said) override;
  void OnPause() override;
  void OnEnded(int connection) override;

  // Writes the rest. No other member may be called afterwards.
  void Finish();

 private:
  using Method = const google::protobuf::MethodDescriptor*;
  using Browser = std::optional<std::uint64_t>;
  using StreamId = std::pair<int, std::uint64_t>;  // The first: connection.

  struct Line {
    std::string text;
    bool is_complete;
  };

  // A call of the widget's, on a stream that has no pictures.
  struct WidgetsCall {
    Method method;
    std::unique_ptr<google::protobuf::Message> message;
  };

  struct Stream {
    Method method;
    bool has_pictures;
    // As lines name them.
    std::set<std::string> keys;
    // Lines that wait for the first answer, which tells how all are answered.
    std::map<Browser, Line*> unanswered;
    // Ids repeat under other keys.
    std::map<std::pair<std::int64_t, Browser>, WidgetsCall> calls;
  };

  Line* Begin(int connection, absl::string_view text);
  void Write(int connection, absl::string_view text);
  static void CompleteUnanswered(Line* call);
  void TellWhen();
  // Before the host does something: what it may do that on account of.
  void TellWhatTheHostKnows();
  void Allow(int connection, Method method);

  void OnUnknown(int connection, const Said& said);
  void OnCall(int connection, const Said& said);
  void OnCallEnded(int connection, const Said& said);
  void OnSubscribed(int connection, const Said& said);
  void OnUnsubscribed(int connection, const Said& said);
  void OnEvent(int connection, Said said);
  void OnWidgetsCall(Said said, Stream& stream);
  void OnWidgetsCallEnded(int connection, Said said, Stream& stream);
  void EndStream(int connection, std::uint64_t stream);
  // Nobody completes the line any more.
  void AwaitNoAnswer(Line* line);
  // A stream is subscribed to a key no longer.
  void EndSubscription(int connection, std::uint64_t stream, Method method,
                       const std::string& key);

  // Without what varies; true if there was something.
  bool Clean(google::protobuf::Message* message) const;

  const RecorderOptions options_;
  std::ostream* const file_;
  const absl::Time begun_ = absl::Now();
  absl::Duration told_;  // When, in the latest remark.
  TypedTextHider hider_;
  std::deque<Line> lines_;
  std::map<StreamId, Line*> calls_;  // Without answer.
  std::map<StreamId, Stream> streams_;
  // By connection, method and key. A session has one line for all of them, and
  // the events of the first: the widget tells each the same.
  std::map<std::tuple<int, Method, std::string>, std::set<std::uint64_t>>
      subscribed_;
  std::set<std::pair<int, Method>> allowed_;
  std::set<int> spoke_;  // Connections that lines are about.
  std::map<std::tuple<int, Method, Browser>,
           std::unique_ptr<google::protobuf::Message>>
      latest_events_;  // Of varying methods, since the host did something.
  // Likewise. Users act on what they see, and engines drop input for a page
  // that has not been drawn. By connection; the line that waits for it.
  std::vector<std::pair<int, std::string>> first_pictures_;
};

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_RECORDER_H_
