#include "engines/chromium/addresses.h"

#include <algorithm>
#include <array>
#include <optional>
#include <system_error>
#include <utility>

#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_join.h"
#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"

namespace chromium {
namespace {

constexpr std::array<absl::string_view, 4> kSchemes = {"about", "data", "http",
                                                       "https"};

// Those that pages load over a network, and so have to be looked at if they are
// not allowed.
constexpr std::array<absl::string_view, 2> kFetched = {"http", "https"};

int HexDigit(char digit) {
  if (!absl::ascii_isxdigit(static_cast<unsigned char>(digit))) return -1;
  return absl::ascii_isdigit(static_cast<unsigned char>(digit))
             ? digit - '0'
             : absl::ascii_tolower(static_cast<unsigned char>(digit)) - 'a' +
                   10;
}

// The path of a file address, its escapes replaced. Nothing for one of another
// machine, or with a NUL in it.
std::optional<std::string> PathOf(absl::string_view address) {
  address.remove_prefix(absl::string_view("file:").size());
  if (absl::StartsWith(address, "//")) {
    address.remove_prefix(2);
    const absl::string_view host = address.substr(0, address.find('/'));
    if (!host.empty() && host != "localhost") return std::nullopt;
    address.remove_prefix(host.size());
  }
  address = address.substr(0, address.find_first_of("?#"));
  if (!absl::StartsWith(address, "/")) return std::nullopt;
  std::string path;
  for (std::size_t i = 0; i < address.size(); ++i) {
    if (address[i] == '%' && i + 2 < address.size() &&
        HexDigit(address[i + 1]) >= 0 && HexDigit(address[i + 2]) >= 0) {
      path += static_cast<char>(HexDigit(address[i + 1]) * 16 +
                                HexDigit(address[i + 2]));
      i += 2;
    } else {
      path += address[i];
    }
  }
  if (path.find('\0') != std::string::npos) return std::nullopt;
  return path;
}

bool IsBelow(const std::filesystem::path& path,
             const std::filesystem::path& folder) {
  return std::mismatch(folder.begin(), folder.end(), path.begin(), path.end())
             .first == folder.end();
}

}  // namespace

Addresses::Addresses() : schemes_(kSchemes.begin(), kSchemes.end()) {}

absl::Status Addresses::SetSchemes(absl::string_view list) {
  std::set<std::string, std::less<>> schemes;
  for (const absl::string_view scheme :
       absl::StrSplit(list, ',', absl::SkipEmpty())) {
    if (std::find(kSchemes.begin(), kSchemes.end(), scheme) == kSchemes.end()) {
      return absl::InvalidArgumentError(absl::StrCat(
          "scheme '", scheme, "' cannot be allowed; those that can are ",
          absl::StrJoin(kSchemes, ", "), ", and files by their folder"));
    }
    schemes.emplace(scheme);
  }
  schemes_ = std::move(schemes);
  return absl::OkStatus();
}

absl::Status Addresses::AddFolder(const std::string& folder) {
  std::error_code error;
  const auto path = std::filesystem::canonical(folder, error);
  if (error || !std::filesystem::is_directory(path, error)) {
    return absl::NotFoundError(
        absl::StrCat("there is no folder '", folder, "'"));
  }
  folders_.push_back(path);
  return absl::OkStatus();
}

absl::Status Addresses::Check(absl::string_view address) const {
  const std::string scheme =
      absl::AsciiStrToLower(address.substr(0, address.find(':')));
  if (address.find(':') == absl::string_view::npos) {
    return absl::InvalidArgumentError(
        absl::StrCat("'", address,
                     "' is not an address; it takes a scheme, such as https:"));
  }
  if (schemes_.contains(scheme)) return absl::OkStatus();
  if (scheme != "file") {
    return absl::PermissionDeniedError(absl::StrCat(
        "addresses of scheme '", scheme, "' are not allowed here; allowed are ",
        schemes_.empty() ? "none" : absl::StrJoin(schemes_, ", ")));
  }
  const std::optional<std::string> name =
      PathOf(absl::StrCat(scheme, address.substr(scheme.size())));
  std::error_code error;
  const std::filesystem::path path =
      name.has_value() ? std::filesystem::weakly_canonical(*name, error) : "";
  if (name.has_value() && !error &&
      std::any_of(folders_.begin(), folders_.end(),
                  [&](const auto& folder) { return IsBelow(path, folder); })) {
    return absl::OkStatus();
  }
  return absl::PermissionDeniedError(
      absl::StrCat("'", address, "' is in no folder whose files are allowed"));
}

std::vector<std::string> Addresses::PatternsToCheck() const {
  std::vector<std::string> patterns = {"file://*"};
  for (const absl::string_view scheme : kFetched) {
    if (!schemes_.contains(scheme))
      patterns.push_back(absl::StrCat(scheme, "://*"));
  }
  return patterns;
}

}  // namespace chromium
