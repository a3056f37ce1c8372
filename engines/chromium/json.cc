#include "engines/chromium/json.h"

namespace chromium {

std::optional<Json> ParseJson(absl::string_view text) {
  Json value = Json::parse(text.begin(), text.end(), /*cb=*/nullptr,
                           /*allow_exceptions=*/false);
  if (value.is_discarded()) return std::nullopt;
  return value;
}

std::string PrintJson(const Json& value) {
  return value.dump(/*indent=*/-1, /*indent_char=*/' ', /*ensure_ascii=*/false,
                    Json::error_handler_t::replace);
}

std::string CutText(std::string text, std::size_t max_bytes) {
  if (text.size() <= max_bytes) return text;
  std::size_t end = max_bytes;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80)
    --end;
  text.resize(end);
  return text;
}

const Json& Member(const Json& object, const char* name) {
  static const Json* const null = new Json();
  if (!object.is_object()) return *null;
  const auto found = object.find(name);
  return found == object.end() ? *null : *found;
}

const std::string& Text(const Json& object, const char* name) {
  static const std::string* const empty = new std::string();
  const auto* const text =
      Member(object, name).get_ptr<const Json::string_t*>();
  return text == nullptr ? *empty : *text;
}

double Number(const Json& object, const char* name) {
  const Json& value = Member(object, name);
  return value.is_number() ? value.get<double>() : 0;
}

bool Flag(const Json& object, const char* name) {
  const auto* const flag =
      Member(object, name).get_ptr<const Json::boolean_t*>();
  return flag != nullptr && *flag;
}

const Json::array_t& List(const Json& object, const char* name) {
  static const Json::array_t* const empty = new Json::array_t();
  const auto* const list = Member(object, name).get_ptr<const Json::array_t*>();
  return list == nullptr ? *empty : *list;
}

}  // namespace chromium
