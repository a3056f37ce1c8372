// The command line of orvane-chromium.

#ifndef ENGINES_CHROMIUM_OPTIONS_H_
#define ENGINES_CHROMIUM_OPTIONS_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "engines/chromium/addresses.h"
#include "engines/chromium/engine_process.h"
#include "examples/widget_server/endpoints.h"

namespace chromium {

inline constexpr std::size_t kMaxPages = 32;

struct Options {
  widget_server::Endpoints endpoints;
  std::map<std::uint64_t, std::string> pages;  // Addresses by browser.
  EngineCommand engine;
  Addresses addresses;
  bool allows_scripts = false;  // That hosts run in pages.
};

// Ends the process instead of returning: with exit code 0 after --help and
// --version, and with 2 and a message on stderr if the command line is wrong.
Options ParseOptions(int argc, char** argv);

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_OPTIONS_H_
