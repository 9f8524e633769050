#include "engine/package/ModelMessage.h"

#include "engine/Limits.h"
#include "engine/package/MappedFile.h"
#include "engine/package/Text.h"
#include "schema/Model.pb.h"

#include <google/protobuf/arena.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/stubs/logging.h>

#include <new>
#include <utility>

namespace ulmora::engine::package {
namespace {

/// Levels of messages within messages. Real programs reach about fifteen.
constexpr int kMaxNesting = 100;

/// Bytes of objects per byte of message. Ordinary messages need about four; a hostile one of nothing but empty
/// operations would need a hundred.
constexpr std::int64_t kExpansion = 8;

/// What the arena of the message that this thread is parsing may still take. Arena callbacks carry no context.
thread_local std::int64_t remainingBytes = 0;

void* AllocateBlock(std::size_t size) {
  if (std::cmp_greater(size, remainingBytes)) throw std::bad_alloc();
  remainingBytes -= static_cast<std::int64_t>(size);
  return ::operator new(size);
}

void FreeBlock(void* block, std::size_t /*size*/) {
  ::operator delete(block);
}

google::protobuf::ArenaOptions BoundedBlocks() {
  google::protobuf::ArenaOptions options;
  options.block_alloc = &AllocateBlock;
  options.block_dealloc = &FreeBlock;
  options.max_block_size = std::size_t{1} << 20;
  return options;
}

bool Parse(std::span<const std::byte> bytes, coreml::Model& model) {
  // The parser would print its complaints on standard error.
  const google::protobuf::LogSilencer silencer;
  google::protobuf::io::CodedInputStream stream(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                                static_cast<int>(bytes.size()));
  stream.SetTotalBytesLimit(static_cast<int>(limits::kMaxModelFileBytes));
  stream.SetRecursionLimit(kMaxNesting);
  return model.ParseFromCodedStream(&stream) && stream.ConsumedEntireMessage();
}

}  // namespace

struct ModelMessage::Memory {
  google::protobuf::Arena arena{BoundedBlocks()};
};

ModelMessage::ModelMessage(const std::filesystem::path& file, std::int64_t memoryAllowance) {
  const MappedFile mapping(file, limits::kMaxModelFileBytes, Stage::Open);
  const auto size = static_cast<std::int64_t>(mapping.bytes().size());
  if (size == 0) throw Error(Stage::Open, Quoted(file.string()) + " is empty, expected a model message");
  remainingBytes = memoryAllowance + kExpansion * size;
  try {
    memory_ = std::make_unique<Memory>();
    model_ = google::protobuf::Arena::CreateMessage<coreml::Model>(&memory_->arena);
    if (!Parse(mapping.bytes(), *model_)) {
      throw Error(Stage::Open, Quoted(file.string()) + " is not a model message, or a damaged one");
    }
  } catch (const std::bad_alloc&) {
    throw Error(Stage::Open, Quoted(file.string()) + " needs more memory than a model of " + std::to_string(size) +
                                 " bytes may take");
  }
}

ModelMessage::~ModelMessage() = default;

}  // namespace ulmora::engine::package
