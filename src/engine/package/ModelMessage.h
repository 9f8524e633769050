#pragma once
// The parsed message of a model file. For this folder alone: the generated classes stay behind it.

#include <cstdint>
#include <filesystem>
#include <memory>

namespace ulmora::coreml {
class Model;
}

namespace ulmora::engine::package {

/// Owns the message and all memory of it.
class ModelMessage {
 public:
  /// Parses the file. Throws Error(Open), naming the file, if it cannot be read, is larger than
  /// limits::kMaxModelFileBytes, is no such message, is nested too deeply, or would take more memory than
  /// `memoryAllowance` and eight bytes for each byte of the file.
  explicit ModelMessage(const std::filesystem::path& file, std::int64_t memoryAllowance = kMemoryAllowance);
  ~ModelMessage();

  [[nodiscard]] const coreml::Model& model() const noexcept { return *model_; }

 private:
  /// What a message of any size may take: large programs need about 50 MiB.
  static constexpr std::int64_t kMemoryAllowance = std::int64_t{512} << 20;

  struct Memory;
  std::unique_ptr<Memory> memory_;
  coreml::Model* model_ = nullptr;  ///< within memory_
};

}  // namespace ulmora::engine::package
