#pragma once
// What tests of package reading share: a folder that goes away, packages and weight files built byte by byte, and the
// expectation of an engine error.

#include "engine/Error.h"
#include "engine/Tensor.h"
#include "schema/Model.pb.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace ulmora::engine::package::testing {

/// A folder for packages, removed with its content.
class TemporaryFolder : public test::TemporaryFolder {
 public:
  [[nodiscard]] std::filesystem::path path() const { return std::filesystem::path(Path("x")).parent_path(); }

  /// Writes a file below the folder, with the folders on the way to it, and returns its path.
  std::filesystem::path Write(const std::string& relative, const std::string& bytes) const;
};

[[nodiscard]] std::string ReadFile(const std::filesystem::path& file);

/// The folder of the committed packages.
[[nodiscard]] std::filesystem::path Fixtures();

/// The text of a manifest whose root model is at `path` below Data.
[[nodiscard]] std::string ManifestText(const std::string& path = "com.apple.CoreML/model.mlmodel");

/// Writes "<name>.mlpackage" with this model message, and weight file if it is not empty; returns the package's path.
std::filesystem::path WritePackage(const TemporaryFolder& folder, const std::string& message,
                                   const std::string& weights = "");
std::filesystem::path WritePackage(const TemporaryFolder& folder, const coreml::Model& model,
                                   const std::string& weights = "");

/// Little-endian bytes of an unsigned number.
[[nodiscard]] std::string LittleEndian(std::uint64_t value, int bytes);

/// A weight file in the making.
class WeightFileBuilder {
 public:
  WeightFileBuilder();
  /// Appends a record and returns the offset of its metadata.
  std::uint64_t Add(std::uint32_t typeNumber, const std::string& data, std::uint64_t unusedBits = 0);
  [[nodiscard]] std::string& bytes() noexcept { return bytes_; }

 private:
  std::string bytes_;
};

/// Fills a tensor type; a negative dimension is unknown.
void SetTensorType(coreml::ValueType& type, coreml::DataType element, const std::vector<std::int64_t>& dimensions);

/// A model of one function "main" with input "x" and output "y", [1, 3, ?, ?], and one identity operation.
[[nodiscard]] coreml::Model IdentityModel();
/// The block of such a model.
[[nodiscard]] coreml::Block& BlockOf(coreml::Model& model);
/// Puts a `const` operation in front of the block and returns its value, which has a type but no content yet.
coreml::Value& AddConst(coreml::Model& model, const std::string& name, coreml::DataType element,
                        const std::vector<std::int64_t>& dimensions);

/// Runs `action` and expects an Error of this stage whose text is one line that contains each of `parts`.
template <typename Action>
void ExpectError(Stage stage, const std::vector<std::string>& parts, const Action& action) {
  try {
    action();
  } catch (const Error& error) {
    const std::string text = error.what();
    EXPECT_EQ(error.stage(), stage) << text;
    for (const std::string& part : parts) EXPECT_THAT(text, ::testing::HasSubstr(part));
    EXPECT_THAT(text, ::testing::Not(::testing::HasSubstr("\n")));
    return;
  }
  ADD_FAILURE() << "nothing was thrown, expected: " << ::testing::PrintToString(parts);
}

}  // namespace ulmora::engine::package::testing
