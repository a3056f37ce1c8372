#include "zimbrel/src/core/common/rpc/generator/layout.h"

#include <algorithm>

namespace orvane::generator {
namespace {

constexpr std::size_t kMargin = 80;
constexpr std::size_t kContinuationIndent = 4;

using Lines = std::vector<std::string>;

bool Fit(const Lines& lines) {
  return std::all_of(lines.begin(), lines.end(), [](const std::string& line) {
    return line.size() <= kMargin;
  });
}

std::string Join(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) {
    if (!text.empty()) text += '\n';
    text += line;
  }
  return text;
}

// `start`, then `items` separated by commas, then `end`. Lines are broken at
// the margin; each further line begins at the column of the first item.
Lines Fill(const std::string& start, const Lines& items,
           const std::string& end) {
  Lines lines = {start};
  for (std::size_t i = 0; i < items.size(); ++i) {
    const std::string item = items[i] + (i + 1 < items.size() ? "," : end);
    if (i == 0) {
      lines.back() += item;
    } else if (lines.back().size() + 1 + item.size() <= kMargin) {
      lines.back() += " " + item;
    } else {
      lines.push_back(std::string(start.size(), ' ') + item);
    }
  }
  if (items.empty()) lines.back() += end;
  return lines;
}

Lines Below(const std::string& first, Lines rest) {
  rest.insert(rest.begin(), first);
  return rest;
}

// Like Fill, but the first item stands on a line of its own below `start`.
Lines FillBelow(std::size_t indent, const std::string& start,
                const Lines& items, const std::string& end) {
  if (items.empty()) return {start + end};
  return Below(
      start, Fill(std::string(indent + kContinuationIndent, ' '), items, end));
}

// Whether the compiler would take the next line as part of this comment: it
// ends with a backslash, which may be written as a trigraph.
bool DrawsInTheNext(const std::string& line) {
  return line.ends_with('\\') || line.ends_with("?\?/");
}

}  // namespace

std::string Declaration(std::size_t indent, const std::string& type,
                        const std::string& name, const Lines& parameters,
                        const std::string& end) {
  const std::string blanks(indent, ' ');
  const std::string head = blanks + type + " " + name + "(";
  const std::string close = ")" + end;
  const Lines behind = Fill(head, parameters, close);
  if (Fit(behind)) return Join(behind);
  if (head.size() <= kMargin && !parameters.empty())
    return Join(FillBelow(indent, head, parameters, close));
  const std::string lower_head = blanks + name + "(";
  const Lines behind_lower = Fill(lower_head, parameters, close);
  return Join(Below(blanks + type,
                    Fit(behind_lower)
                        ? behind_lower
                        : FillBelow(indent, lower_head, parameters, close)));
}

std::string Call(std::size_t indent, const std::string& function,
                 const Lines& arguments) {
  const std::string start = std::string(indent, ' ') + function + "(";
  const Lines behind = Fill(start, arguments, ");");
  const Lines below = FillBelow(indent, start, arguments, ");");
  return Join(Fit(behind) && behind.size() <= below.size() ? behind : below);
}

std::string Assignment(std::size_t indent, const std::string& left,
                       const std::string& right) {
  const std::string start = std::string(indent, ' ') + left + " =";
  std::string line = start + " " + right + ";";
  if (line.size() <= kMargin) return line;
  return start + "\n" + std::string(indent + kContinuationIndent, ' ') + right +
         ";";
}

std::string Comment(std::size_t indent, const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += std::string(indent, ' ') + "//" + line;
    if (DrawsInTheNext(line)) text += '.';
    text += '\n';
  }
  return text;
}

std::string Ruler(std::size_t indent, const std::string& title) {
  const std::string text = std::string(indent, ' ') + "// " + title + " ";
  return text + std::string(kMargin - text.size(), '-');
}

}  // namespace orvane::generator
