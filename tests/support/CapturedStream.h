#pragma once
// Collects what is written to a C++ stream while it lives.

#include <ostream>
#include <sstream>
#include <string>

namespace ulmora::test {

class CapturedStream {
 public:
  explicit CapturedStream(std::ostream& stream)
      : stream_(stream), flags_(stream.flags()), precision_(stream.precision()), old_(stream.rdbuf(text_.rdbuf())) {}
  ~CapturedStream() {
    stream_.rdbuf(old_);
    stream_.flags(flags_);
    stream_.precision(precision_);
  }
  /// The stream has one buffer to be put back.
  CapturedStream(const CapturedStream&) = delete;
  CapturedStream& operator=(const CapturedStream&) = delete;

  [[nodiscard]] std::string Text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::ostream& stream_;
  std::ios_base::fmtflags flags_;
  std::streamsize precision_;
  std::streambuf* old_;
};

}  // namespace ulmora::test
