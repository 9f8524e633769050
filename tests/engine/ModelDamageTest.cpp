// Damaged packages: whatever is cut off or flipped, opening succeeds or throws the engine's one exception.

#include "tests/engine/Damage.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

#include <random>

namespace ulmora::engine {
namespace {

using package::testing::Fixtures;
using package::testing::ReadFile;
using package::testing::TemporaryFolder;
using package::testing::WritePackage;
using testing::Flipped;

class ModelDamage : public ::testing::Test {
 protected:
  bool Opens(const std::string& message, const std::string& weights) {
    return testing::OpensOrFailsInOneLine(WritePackage(folder_, message, weights));
  }

  TemporaryFolder folder_;
  const std::filesystem::path data_ = Fixtures() / "unet-flexible-float16.mlpackage" / "Data" / "com.apple.CoreML";
  const std::string message_ = ReadFile(data_ / "model.mlmodel");
  const std::string weights_ = ReadFile(data_ / "weights" / "weight.bin");
};

TEST_F(ModelDamage, UndamagedPackageOpens) {
  EXPECT_TRUE(Opens(message_, weights_));
}

TEST_F(ModelDamage, TruncatedMessages) {
  testing::ForTruncated(message_, 60, [&](const std::string& message) { EXPECT_FALSE(Opens(message, weights_)); });
  EXPECT_FALSE(Opens(message_.substr(0, message_.size() - 1), weights_));
}

TEST_F(ModelDamage, TruncatedWeightFiles) {
  // The file is padded behind the data of its last record.
  for (std::size_t length = 1; length + 64 < weights_.size(); length += 1 + length / 60) {
    SCOPED_TRACE(length);
    EXPECT_FALSE(Opens(message_, weights_.substr(0, length)));
  }
}

TEST_F(ModelDamage, FlippedBitsInTheMessage) {
  std::mt19937 random(20240309);
  int opened = 0;
  constexpr int kRounds = 600;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    if (Opens(Flipped(message_, random, 1 + round % 3), weights_)) ++opened;
  }
  // Names of values and metadata leave room for harmless flips, but most must be noticed.
  EXPECT_LT(opened, kRounds / 2);
}

TEST_F(ModelDamage, FlippedBitsInTheRecordsOfTheWeightFile) {
  std::mt19937 random(20240310);
  int refused = 0;
  constexpr int kRounds = 300;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    // The first 192 bytes: header, first record and some of its data.
    std::string head = Flipped(weights_.substr(0, 192), random, 1);
    if (!Opens(message_, head + weights_.substr(192))) ++refused;
  }
  // Sentinel, type, size, offset: 24 of 192 bytes, and the version.
  EXPECT_GT(refused, kRounds / 20);
}

TEST_F(ModelDamage, MessagesOfNoise) {
  std::mt19937 random(20240311);
  for (int round = 0; round < 300; ++round) {
    std::string noise(1 + random() % 400, '\0');
    for (char& byte : noise) byte = static_cast<char>(random());
    SCOPED_TRACE(round);
    EXPECT_FALSE(Opens(noise, weights_));
  }
}

}  // namespace
}  // namespace ulmora::engine
