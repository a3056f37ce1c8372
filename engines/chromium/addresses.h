// Which addresses pages may load.

#ifndef ENGINES_CHROMIUM_ADDRESSES_H_
#define ENGINES_CHROMIUM_ADDRESSES_H_

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/string_view.h"

namespace chromium {

// By scheme; files in addition by folder.
class Addresses {
 public:
  // http, https, data and about; no file.
  Addresses();

  // Replaces the schemes, a list with commas. "file" is not among them: folders
  // allow files. kInvalidArgument for one that is not known.
  absl::Status SetSchemes(absl::string_view list);

  // Allows the files in this folder and below it. kNotFound if there is no such
  // folder.
  absl::Status AddFolder(const std::string& folder);

  // OK if a page may load the address; else words for whoever asked for it.
  // Links on the disk count as what they lead to.
  absl::Status Check(absl::string_view address) const;

  // The patterns of the addresses that must be checked one by one, in the
  // engine's syntax: what pages load by themselves, as images and frames do.
  std::vector<std::string> PatternsToCheck() const;

 private:
  std::set<std::string, std::less<>> schemes_;
  std::vector<std::filesystem::path> folders_;
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_ADDRESSES_H_
