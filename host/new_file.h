// Files whose names somebody else has chosen, such as a page.

#ifndef HOST_NEW_FILE_H_
#define HOST_NEW_FILE_H_

#include <string>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"

namespace orvane::host {

// A name for a file, as close to the suggested one as is safe: without folders,
// without dots and blanks in front, with "_" for every character that is not
// shown, in UTF-8, of 1 to 200 bytes. A long name keeps its extension. If
// nothing is left, the name is "download".
std::string SafeFileName(absl::string_view suggested);

// Creates an empty file in a folder, under the suggested name made safe;
// "name (2).pdf" and so on if something has that name already. Returns its
// path. Since the file is there from now on, nobody else takes its name.
//
//   kAlreadyExists  the names up to "name (1000).pdf" are taken
//   kUnavailable    the folder cannot be written, in words
absl::StatusOr<std::string> CreateNewFile(const std::string& folder,
                                          absl::string_view suggested);

// Removes a file that was created, unless something has been written to it.
void RemoveIfEmpty(const std::string& path);

}  // namespace orvane::host

#endif  // HOST_NEW_FILE_H_
