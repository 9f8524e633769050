#include "engine/cpu/AlignedBuffer.h"

#include <cstring>

namespace ulmora::engine::cpu {

AlignedBuffer::AlignedBuffer(std::size_t bytes)
    : memory_(::operator new (bytes > 0 ? bytes : kAlignment, std::align_val_t{kAlignment})), bytes_(bytes) {
  std::memset(memory_.get(), 0, bytes);
}

}  // namespace ulmora::engine::cpu
