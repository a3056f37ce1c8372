#include "tools/widgetctl/status_text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "absl/strings/str_join.h"
#include "absl/strings/strip.h"
#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/printable.h"

namespace widgetctl {

using rpc::transport::ServerStatus;

namespace {

// Without the parts of a second once it is long.
std::string Age(std::uint64_t milliseconds) {
  absl::Duration age = absl::Milliseconds(milliseconds);
  if (age >= absl::Minutes(1)) age = absl::Trunc(age, absl::Seconds(1));
  return absl::FormatDuration(age);
}

// A server may tell of any number of clients, in words of any length.
constexpr int kMaxRows = 100;
constexpr std::size_t kMaxWordBytes = 60;

// Rows of words, each column as wide as its widest word.
class Table {
 public:
  using Row = std::vector<std::string>;

  explicit Table(Row head) { Add(std::move(head)); }

  void Add(Row row) {
    if (rows_.size() > kMaxRows) {
      ++left_out_;
      return;
    }
    for (std::string& word : row)
      word.resize(std::min(word.size(), kMaxWordBytes));
    widths_.resize(std::max(widths_.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i)
      widths_[i] = std::max(widths_[i], row[i].size());
    rows_.push_back(std::move(row));
  }

  std::string Text() const {
    std::string text;
    for (const Row& row : rows_) {
      std::string line;
      for (std::size_t i = 0; i < row.size(); ++i)
        absl::StrAppendFormat(&line, "  %-*s", static_cast<int>(widths_[i]),
                              row[i]);
      absl::StrAppend(&text, absl::StripTrailingAsciiWhitespace(line), "\n");
    }
    if (left_out_ > 0) absl::StrAppend(&text, "  and ", left_out_, " more\n");
    return text;
  }

 private:
  std::vector<Row> rows_;
  std::vector<std::size_t> widths_;
  int left_out_ = 0;
};

}  // namespace

std::string StatusInWords(const ServerStatus& status) {
  std::string text = absl::StrCat(
      "process ", status.process_id(), ", version ",
      orvane::Printable(status.version()), ", up ", Age(status.uptime_ms()),
      "\nservices: ", orvane::Printable(absl::StrJoin(status.services(), ", ")),
      "\n\n");
  Table clients({"client", "service", "connected", "calls", "oldest call",
                 "streams", "keys", "queued", "reads nothing for"});
  for (const auto& client : status.connections()) {
    const auto& oldest = client.oldest_call();
    clients.Add({absl::StrCat(client.process_id()),
                 client.service().empty() ? "has said nothing"
                                          : orvane::Printable(client.service()),
                 Age(client.age_ms()), absl::StrCat(client.calls()),
                 client.has_oldest_call()
                     ? absl::StrCat(orvane::Printable(oldest.method()), " ",
                                    Age(oldest.age_ms()))
                     : "",
                 absl::StrCat(client.streams()),
                 absl::StrCat(client.subscriptions()),
                 absl::StrCat(client.queued_bytes()),
                 client.has_unread_ms() ? Age(client.unread_ms()) : ""});
  }
  Table budgets({"limit", "used", "of"});
  for (const auto& budget : status.budgets()) {
    budgets.Add({orvane::Printable(budget.limit()), absl::StrCat(budget.used()),
                 absl::StrCat(budget.available())});
  }
  absl::StrAppend(&text, clients.Text(), "\n", budgets.Text(), "\n",
                  status.replaced_events(), " events replaced\n");
  for (int i = 0; i < std::min(status.refusals_size(), kMaxRows); ++i) {
    const auto& refusals = status.refusals(i);
    absl::StrAppend(&text, refusals.count(), " clients refused or ended, ",
                    orvane::Printable(refusals.code()), ", the latest: ",
                    orvane::Printable(refusals.latest_reason()), "\n");
  }
  return text;
}

}  // namespace widgetctl
