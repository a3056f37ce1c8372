// A widget that is not to be trusted serves widgetctl. Whatever it sends, each
// command ends by itself with one of its exit codes. What it prints is JSON of
// one line each, or text that a terminal does not obey.
//
// The first byte of an input chooses the command.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/ascii.h"
#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"
#include "gtest/gtest.h"

#include "fuzz/program.h"

namespace {

const std::vector<std::string> kCommands[] = {
    {"call", "Show", R"({"value": 1})"},
    {"call", "Attach", "{}"},
    {"call", "GetAccessibilityToken", "{}"},
    {"watch", "WhenTooltipChanged", "1"},
    {"--count=2", "watch", "WhenDragCursorUpdated", "1"},
    {"--reply={}", "serve", "OnShowDropdown", "1"},
    {"--fail=no", "--count=2", "serve", "OnUpdateSurface", "1"},
    {"run", SESSION},
};

// JSON keeps all other characters, also those that some terminals obey.
void ExpectNoControlCharacters(const std::string& lines) {
  for (const absl::string_view line : absl::StrSplit(lines, '\n')) {
    for (const char character : line)
      EXPECT_FALSE(absl::ascii_iscntrl(static_cast<unsigned char>(character)))
          << line;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  if (size == 0 || size > fuzz::kMaxProgramInput) return 0;
  std::vector<std::string> arguments =
      kCommands[data[0] % std::size(kCommands)];
  arguments.insert(arguments.begin(), "widgetctl");
  const fuzz::ProgramRun run =
      fuzz::RunProgram(std::move(arguments),
                       {reinterpret_cast<const char*>(data) + 1, size - 1});
  // No input is wrong usage.
  EXPECT_TRUE(run.exit_code == 0 || run.exit_code == 1 || run.exit_code == 3)
      << run.exit_code << '\n'
      << run.errors;
  EXPECT_TRUE(run.errors.empty() || run.exit_code != 0) << run.errors;
  ExpectNoControlCharacters(run.output);
  fuzz::ExpectPrintable(run.errors);
  return 0;
}
