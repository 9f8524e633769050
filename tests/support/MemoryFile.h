#pragma once
// A file in memory for code that takes a stream: unlike a plain string buffer, it can be written behind its end, and
// the gap fills with zeros.

#include <ios>
#include <sstream>
#include <string>

namespace ulmora::test {

class MemoryFile : public std::stringbuf {
 public:
  explicit MemoryFile(const std::string& bytes) : std::stringbuf(bytes, std::ios::in | std::ios::out) {}

 protected:
  std::streampos seekoff(std::streamoff offset, std::ios::seekdir way, std::ios::openmode which) override {
    if (way == std::ios::beg) FillTo(offset, which);
    return std::stringbuf::seekoff(offset, way, which);
  }
  std::streampos seekpos(std::streampos position, std::ios::openmode which) override {
    FillTo(position, which);
    return std::stringbuf::seekpos(position, which);
  }

 private:
  void FillTo(std::streamoff offset, std::ios::openmode which) {
    if ((which & std::ios::out) == 0) return;
    const std::streamoff end = std::stringbuf::seekoff(0, std::ios::end, std::ios::out);
    for (std::streamoff at = end; at < offset; ++at) sputc('\0');
  }
};

}  // namespace ulmora::test
