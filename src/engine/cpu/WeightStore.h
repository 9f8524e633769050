#pragma once
// Constants in the layouts that the primitives want, prepared once each and shared.

#include "engine/Tensor.h"
#include "engine/cpu/AlignedBuffer.h"
#include "engine/cpu/OneDnn.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <tuple>

namespace ulmora::engine::cpu {

class WeightStore {
 public:
  /// Address of the elements of a constant as `wanted` describes, given that its row-major elements mean `given` (which
  /// may permute or split dimensions). Float constants only. The address is valid as long as the store.
  [[nodiscard]] const void* Prepare(const Tensor& constant, const onednn::Desc& given, const onednn::Desc& wanted);

  /// Address of the elements of a numeric or bool constant as they are. Keeps the constant alive.
  [[nodiscard]] const void* Plain(const Tensor& constant);

  /// Makes a kernel's own form of a float constant from its row-major elements.
  using Packer = std::function<void(const float* elements, float* packed)>;

  /// Address of the form that `pack` makes, of that many bytes. Of a constant one such form exists for each shape in
  /// which its elements are read and each number of bytes.
  [[nodiscard]] const void* Packed(const Tensor& constant, std::int64_t bytes, const Packer& pack);

  /// Bytes of all forms that Packed made.
  [[nodiscard]] std::int64_t packedBytes() const noexcept { return packedBytes_; }

  /// Bytes of everything prepared; constants kept as they are do not count.
  [[nodiscard]] std::size_t bytes() const noexcept { return bytes_; }

 private:
  struct Prepared {
    onednn::Desc given;
    onednn::Desc wanted;
    AlignedBuffer memory;
  };

  std::map<const void*, Tensor> kept_;  ///< by identity: while a constant is kept, no other can take its address
  std::map<const void*, std::list<Prepared>> prepared_;
  std::map<std::tuple<const void*, Shape, std::int64_t>, AlignedBuffer> packed_;
  std::size_t bytes_ = 0;
  std::int64_t packedBytes_ = 0;
};

}  // namespace ulmora::engine::cpu
