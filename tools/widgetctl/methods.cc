#include "tools/widgetctl/methods.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"

namespace widgetctl {

using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using orvane::MethodKind;

namespace {

constexpr std::size_t kMaxSuggestions = 3;

// The Levenshtein distance: how many letters have to be inserted, removed or
// replaced to turn one word into the other.
std::size_t EditDistance(absl::string_view from, absl::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

absl::string_view Name(MethodKind kind) {
  switch (kind) {
    case MethodKind::kUnary:
      return "unary";
    case MethodKind::kEventStream:
      return "event stream";
    case MethodKind::kCallbackStream:
      break;
  }
  return "callback stream";
}

}  // namespace

absl::string_view KindName(const MethodDescriptor& method) {
  return Name(*orvane::KindOf(method));
}

const ServiceDescriptor& ServiceWithMethod(
    absl::Span<const ServiceDescriptor* const> services,
    absl::string_view method) {
  for (const ServiceDescriptor* const service : services) {
    if (service->FindMethodByName(std::string(method)) != nullptr)
      return *service;
  }
  return *services.front();
}

absl::StatusOr<const MethodDescriptor*> FindMethod(
    const ServiceDescriptor& service, absl::string_view name) {
  const MethodDescriptor* const method =
      service.FindMethodByName(std::string(name));
  if (method != nullptr) return method;
  std::set<std::string> names;
  for (int i = 0; i < service.method_count(); ++i) {
    names.emplace(service.method(i)->name());
  }
  return absl::NotFoundError(absl::StrCat("no method ", name, " in ",
                                          service.full_name(),
                                          DidYouMean(name, names)));
}

absl::StatusOr<const MethodDescriptor*> FindMethodOfKind(
    const ServiceDescriptor& service, absl::string_view name, MethodKind kind,
    absl::string_view use) {
  absl::StatusOr<const MethodDescriptor*> found = FindMethod(service, name);
  if (!found.ok() || orvane::KindOf(**found) == kind) return found;
  return absl::InvalidArgumentError(
      absl::StrCat(name, " cannot be ", use, ": it is of kind ",
                   KindName(**found), ", not ", Name(kind)));
}

std::string DidYouMean(absl::string_view name,
                       const std::set<std::string>& candidates) {
  const std::string typed = absl::AsciiStrToLower(name);
  std::vector<std::pair<std::size_t, std::string>> ranked;
  for (const std::string& candidate : candidates) {
    const std::string lower = absl::AsciiStrToLower(candidate);
    const std::size_t distance = EditDistance(typed, lower);
    // A part of the name counts too, unless it is so short that it fits many.
    const bool is_part = typed.size() >= 3 && absl::StrContains(lower, typed);
    if (is_part || distance <= std::max<std::size_t>(2, typed.size() / 3)) {
      ranked.emplace_back(distance, candidate);
    }
  }
  if (ranked.empty()) return "";
  std::sort(ranked.begin(), ranked.end());
  ranked.resize(std::min(ranked.size(), kMaxSuggestions));

  std::string suggestions = ranked[0].second;
  for (std::size_t i = 1; i < ranked.size(); ++i) {
    absl::StrAppend(&suggestions, i + 1 < ranked.size() ? ", " : " or ",
                    ranked[i].second);
  }
  return absl::StrCat("; did you mean ", suggestions, "?");
}

}  // namespace widgetctl
