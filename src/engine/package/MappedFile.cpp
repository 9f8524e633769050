#include "engine/package/MappedFile.h"

#include "engine/package/Text.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace ulmora::engine::package {
namespace {

/// An open descriptor, closed on scope exit: a mapping does not need it.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int number() const noexcept { return number_; }

 private:
  int number_;
};

std::string LastError() {
  return std::generic_category().message(errno);
}

}  // namespace

MappedFile::MappedFile(const std::filesystem::path& file, std::int64_t maxBytes, Stage stage) {
  const std::string name = Quoted(file.string());
  // Not blocking, because opening a named pipe would otherwise wait for its writer.
  const Descriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (descriptor.number() < 0) throw Error(stage, "cannot open " + name + ": " + LastError());
  struct stat status {};
  if (::fstat(descriptor.number(), &status) != 0) throw Error(stage, "cannot examine " + name + ": " + LastError());
  if (!S_ISREG(status.st_mode)) throw Error(stage, name + " is not a regular file");
  if (status.st_size > maxBytes) {
    throw Error(stage, name + " has " + std::to_string(status.st_size) + " bytes, expected at most " +
                           std::to_string(maxBytes));
  }
  if (status.st_size == 0) return;  // an empty mapping is not allowed
  const auto size = static_cast<std::size_t>(status.st_size);
  void* address = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, descriptor.number(), 0);
  if (address == MAP_FAILED) throw Error(stage, "cannot map " + name + ": " + LastError());
  data_ = static_cast<const std::byte*>(address);
  size_ = size;
}

MappedFile::~MappedFile() {
  // munmap takes a pointer to non-const although it does not write.
  if (data_ != nullptr) ::munmap(const_cast<std::byte*>(data_), size_);
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

}  // namespace ulmora::engine::package
