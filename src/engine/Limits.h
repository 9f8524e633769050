#pragma once
// Every bound that the engine puts on what a model package claims, with its reason. A package is untrusted input: all
// counts, sizes and ranks pass one of these before anything is allocated for them.

#include <cstdint>

namespace ulmora::engine::limits {

/// Core ML itself knows tensors up to rank 5; pixel shuffles written out by hand pass through rank 6. 8 leaves room.
inline constexpr int kMaxRank = 8;

/// Elements of one tensor at run time. 2^31 floats are 8 GiB: no tile needs more, and products stay far from overflow.
inline constexpr std::int64_t kMaxTensorElements = std::int64_t{1} << 31;

/// Bytes of all constants of a package after decoding to float32 or int32. The largest published image networks have
/// about 120 million parameters (480 MB); four times that is generous.
inline constexpr std::int64_t kMaxConstantBytes = std::int64_t{2} << 30;

/// A serialized model message; protobuf itself cannot parse more than 2 GiB. Weights of programs live outside it.
inline constexpr std::int64_t kMaxModelFileBytes = (std::int64_t{1} << 31) - 1;

/// Manifest.json lists a handful of files; 1 MiB is already absurd.
inline constexpr std::int64_t kMaxManifestBytes = std::int64_t{1} << 20;

/// Operations of one program. Large published networks have a few thousand.
inline constexpr std::int64_t kMaxOperations = 200'000;

/// Values (operation results and constants) of one program.
inline constexpr std::int64_t kMaxValues = 1'000'000;

/// Results of one operation, and operands of one variadic parameter: split and concat of single channels.
inline constexpr std::int64_t kMaxOperands = 65'536;

/// Elements that constant folding may produce in one result: shape arithmetic and small tables need thousands, weights
/// that are decompressed when opened need as many as the largest layer holds.
inline constexpr std::int64_t kMaxFoldedElements = std::int64_t{1} << 28;

/// Elements that constant folding may read and write in one program (for products: operand times result elements).
/// Beyond it operations stay in the program and run with it: opening a package must not take as long as running it.
inline constexpr std::int64_t kMaxFoldingWork = std::int64_t{1} << 31;

/// Bytes of the arena that holds all intermediate tensors of a run.
inline constexpr std::int64_t kMaxArenaBytes = std::int64_t{16} << 30;

}  // namespace ulmora::engine::limits
