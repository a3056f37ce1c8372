// A widget that is not to be trusted serves the console host. Whatever it
// sends, the host ends by itself, and prints nothing that a terminal obeys.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "gtest/gtest.h"

#include "fuzz/program.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  if (size > fuzz::kMaxProgramInput) return 0;
  const fuzz::ProgramRun run =
      fuzz::RunProgram({"host"}, {reinterpret_cast<const char*>(data), size});
  EXPECT_TRUE(run.exit_code == EXIT_SUCCESS || run.exit_code == EXIT_FAILURE)
      << run.exit_code;
  EXPECT_EQ(run.errors.empty(), run.exit_code == EXIT_SUCCESS) << run.errors;
  fuzz::ExpectPrintable(run.output);
  fuzz::ExpectPrintable(run.errors);
  return 0;
}
