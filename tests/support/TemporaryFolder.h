#pragma once
// A folder for the files of one test, removed with all that it holds when the test ends.

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace ulmora::test {

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "lumvane-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a folder like " + pattern);
    path_ = pattern;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  /// Two owners would remove the folder twice.
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  /// Path of a file in the folder, whether it exists or not.
  [[nodiscard]] std::string Path(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

}  // namespace ulmora::test
