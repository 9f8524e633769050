#include "engine/cpu/WeightStore.h"

#include <utility>

namespace ulmora::engine::cpu {

const void* WeightStore::Prepare(const Tensor& constant, const onednn::Desc& given, const onednn::Desc& wanted) {
  if (given == wanted) return Plain(constant);
  for (const Prepared& prepared : prepared_[constant.identity()]) {
    if (prepared.given == given && prepared.wanted == wanted) return prepared.memory.data();
  }
  // The library only reads from it, but its interface has no const.
  void* elements = const_cast<float*>(constant.floats().data());
  AlignedBuffer memory(wanted.get_size());
  dnnl::memory from(given, onednn::CpuEngine(), elements);
  dnnl::memory to(wanted, onednn::CpuEngine(), memory.data());
  dnnl::stream stream = onednn::CpuStream();
  dnnl::reorder(from, to).execute(stream, from, to);
  stream.wait();
  bytes_ += wanted.get_size();
  kept_.try_emplace(constant.identity(), constant);
  std::list<Prepared>& list = prepared_[constant.identity()];
  list.push_back({given, wanted, std::move(memory)});
  return list.back().memory.data();
}

const void* WeightStore::Packed(const Tensor& constant, std::int64_t bytes, const Packer& pack) {
  const auto [entry, isNew] = packed_.try_emplace({constant.identity(), constant.shape(), bytes});
  if (isNew) {
    entry->second = AlignedBuffer(static_cast<std::size_t>(bytes));
    pack(constant.floats().data(), static_cast<float*>(entry->second.data()));
    kept_.try_emplace(constant.identity(), constant);
    packedBytes_ += bytes;
    bytes_ += static_cast<std::size_t>(bytes);
  }
  return entry->second.data();
}

const void* WeightStore::Plain(const Tensor& constant) {
  kept_.try_emplace(constant.identity(), constant);
  switch (constant.storage()) {
    case Storage::Int:
      return constant.ints().data();
    case Storage::Bool:
      return constant.bools().data();
    default:
      return constant.floats().data();
  }
}

}  // namespace ulmora::engine::cpu
