// Folders for the sockets of tests.

#ifndef EXAMPLES_TESTING_TEMPORARY_FOLDER_H_
#define EXAMPLES_TESTING_TEMPORARY_FOLDER_H_

#include <string>

namespace example_testing {

// A new folder that only this user can enter. It goes away with its owner, and
// with everything in it.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace example_testing

#endif  // EXAMPLES_TESTING_TEMPORARY_FOLDER_H_
