// JSON as the engine speaks it.

#ifndef ENGINES_CHROMIUM_JSON_H_
#define ENGINES_CHROMIUM_JSON_H_

#include <cstddef>
#include <optional>
#include <string>

#include "absl/strings/string_view.h"

// A value that turns into whatever is asked for would fail at run time.
#define JSON_USE_IMPLICIT_CONVERSIONS 0
#include "nlohmann/json.hpp"

namespace chromium {

using Json = nlohmann::json;

// Nothing if the text is not JSON. Half a surrogate pair, which a page can put
// into any text of its own, and numbers beyond double count as that.
std::optional<Json> ParseJson(absl::string_view text);

// On one line, in UTF-8. Bytes that are not UTF-8 become U+FFFD.
std::string PrintJson(const Json& value);

// At most so many bytes of a text, without a part of a character at the end.
std::string CutText(std::string text, std::size_t max_bytes);

// For reading what comes from outside: a member that is missing or of another
// type reads as null, "", 0, false or an empty list.
const Json& Member(const Json& object, const char* name);
const std::string& Text(const Json& object, const char* name);
double Number(const Json& object, const char* name);
bool Flag(const Json& object, const char* name);
const Json::array_t& List(const Json& object, const char* name);

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_JSON_H_
