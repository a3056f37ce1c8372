// A whole program inside a fuzzer.

#ifndef FUZZ_PROGRAM_H_
#define FUZZ_PROGRAM_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// The program's main function, which the build renames.
int ProgramMain(int argc, char** argv);

namespace fuzz {

struct ProgramRun {
  int exit_code = 0;
  std::string output;
  std::string errors;
};

// Runs the program with `arguments`, of which the first is its name, and
// "--socket" with the path of a server that accepts one connection and sends
// `bytes` and nothing else. Whole frames among these wait until the program has
// begun the call or stream that they belong to, if it still does something.
ProgramRun RunProgram(std::vector<std::string> arguments,
                      std::string_view bytes);

// Fails unless every line is such that a terminal shows it and obeys nothing in
// it.
void ExpectPrintable(const std::string& lines);

// What the socket takes at once while the program does not read; longer inputs
// would wait for it.
inline constexpr std::size_t kMaxProgramInput = std::size_t{64} << 10;

}  // namespace fuzz

#endif  // FUZZ_PROGRAM_H_
