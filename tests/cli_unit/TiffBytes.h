#pragma once
// Builds small TIFF files byte by byte, of either form and byte order, sound or damaged, for the tests of the TIFF
// code.

#include "cli/ByteOrder.h"
#include "tests/support/Compare.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace ulmora::test {

struct TiffForm {
  bool littleEndian;
  bool bigTiff;
};

/// The four forms that a file can have, with names for parameterized tests.
inline auto AllTiffForms() {
  return testing::Values(TiffForm{true, false}, TiffForm{false, false}, TiffForm{true, true}, TiffForm{false, true});
}

inline std::string TiffFormName(const testing::TestParamInfo<TiffForm>& info) {
  return std::string(info.param.bigTiff ? "Big" : "Classic") + (info.param.littleEndian ? "Little" : "Big") + "Endian";
}

/// The file is: header, values that don't fit in their entries in order of adding, directory.
class TiffBytes {
 public:
  explicit TiffBytes(TiffForm form) : form_(form) {}

  [[nodiscard]] std::string Number(std::uint64_t value, std::size_t size) const {
    std::uint8_t bytes[8];
    if (size == 1) bytes[0] = static_cast<std::uint8_t>(value);
    if (size == 2) cli::Write16(bytes, static_cast<std::uint16_t>(value), form_.littleEndian);
    if (size == 4) cli::Write32(bytes, static_cast<std::uint32_t>(value), form_.littleEndian);
    if (size == 8) cli::Write64(bytes, value, form_.littleEndian);
    return std::string(bytes, bytes + size);
  }

  [[nodiscard]] std::size_t OffsetSize() const { return form_.bigTiff ? 8 : 4; }
  [[nodiscard]] std::size_t CountFieldSize() const { return form_.bigTiff ? 8 : 2; }
  [[nodiscard]] std::size_t HeaderSize() const { return form_.bigTiff ? 16 : 8; }
  /// Where the values, and then the directory, go next.
  [[nodiscard]] std::uint64_t Here() const { return HeaderSize() + values_.size(); }

  /// An entry exactly as given: its value field holds `value`, filled with NULs at its end.
  TiffBytes& Raw(std::uint16_t tag, std::uint16_t type, std::uint64_t count, std::string value) {
    value.resize(OffsetSize(), '\0');
    entries_.push_back(Number(tag, 2) + Number(type, 2) + Number(count, OffsetSize()) + value);
    return *this;
  }

  /// An entry with a sound value: inside if it fits, else ahead of the directory.
  TiffBytes& Field(std::uint16_t tag, std::uint16_t type, std::uint64_t count, const std::string& value) {
    if (value.size() <= OffsetSize()) return Raw(tag, type, count, value);
    Raw(tag, type, count, Number(Here(), OffsetSize()));
    values_ += value;
    return *this;
  }

  TiffBytes& Ascii(std::uint16_t tag, const std::string& text) { return Field(tag, 2, text.size(), text); }

  TiffBytes& Numbers(std::uint16_t tag, std::uint16_t type, std::size_t size, std::vector<std::uint64_t> numbers) {
    std::string value;
    for (const std::uint64_t number : numbers) value += Number(number, size);
    return Field(tag, type, numbers.size(), value);
  }

  TiffBytes& Bytes(const std::string& bytes) {
    values_ += bytes;
    return *this;
  }

  TiffBytes& NextDirectory(std::uint64_t offset) {
    next_ = offset;
    return *this;
  }

  [[nodiscard]] std::string Header(std::uint64_t directoryOffset) const {
    const std::string order = form_.littleEndian ? "II" : "MM";
    if (!form_.bigTiff) return order + Number(42, 2) + Number(directoryOffset, 4);
    return order + Number(43, 2) + Number(8, 2) + Number(0, 2) + Number(directoryOffset, 8);
  }

  [[nodiscard]] std::string Build() const {
    std::string file = Header(Here()) + values_ + Number(entries_.size(), CountFieldSize());
    for (const std::string& entry : entries_) file += entry;
    return file + Number(next_, OffsetSize());
  }

 private:
  TiffForm form_;
  std::string values_;
  std::vector<std::string> entries_;
  std::uint64_t next_ = 0;
};

/// The text of the std::invalid_argument that the call throws.
template <typename Call>
std::string InvalidArgumentText(Call&& call) {
  return ThrownText<std::invalid_argument>(std::forward<Call>(call));
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << stream.rdbuf();
  return bytes.str();
}

}  // namespace ulmora::test
