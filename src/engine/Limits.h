#pragma once
// Every bound that the engine puts on what a model package claims, with its reason. A package is untrusted input: all
// counts, sizes and ranks pass one of these before anything is allocated for them.

#include <cstddef>
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

/// The textual program of a compiled bundle, without the weights, which stand in a file of their own. The largest
/// published networks print to a few MiB.
inline constexpr std::int64_t kMaxProgramTextBytes = std::int64_t{256} << 20;

/// Brackets within brackets of the textual program. Real ones reach about ten, in descriptions of flexible shapes.
inline constexpr std::size_t kMaxTextNesting = 64;

/// Functions of one program; those published have one, and adapters for a handful of tasks at most.
inline constexpr std::int64_t kMaxFunctions = 4'096;

/// metadata.json of a compiled bundle: a few KiB, and whatever the author says about the model.
inline constexpr std::int64_t kMaxMetadataBytes = std::int64_t{1} << 20;

/// Operations of one program. Large published networks have a few thousand.
inline constexpr std::int64_t kMaxOperations = 200'000;

/// Values (operation results and constants) of one program.
inline constexpr std::int64_t kMaxValues = 1'000'000;

/// Results of one operation, and operands of one variadic parameter: split and concat of single channels.
inline constexpr std::int64_t kMaxOperands = 65'536;

/// Shapes that the description of one input may list. Core ML itself takes 128; more cost nothing but time to compare.
inline constexpr int kMaxEnumeratedShapes = 4'096;

/// Elements that constant folding may produce in one result, besides as many as all constants of the package hold.
/// Shape arithmetic and small tables need thousands, the attention masks of a network with windows, for one tile, 2^24
/// (64 MiB). What is not folded stays in the program and runs with it.
inline constexpr std::int64_t kMaxFoldedElements = std::int64_t{1} << 24;

/// Elements that constant folding may produce in one program (128 MiB), released or not: two such masks, or many
/// tables. Without this bound a package of a few bytes could have gigabytes filled when it is opened.
inline constexpr std::int64_t kFoldedElements = std::int64_t{1} << 25;

/// The same for each element of the package's own constants: unpacking a weight, casting, transposing, scaling and
/// merging it are a handful of results of its size.
inline constexpr std::int64_t kFoldedPerConstant = 8;

/// Elements that constant folding may read and write in one program (for products: operand times result elements), and
/// that for each element of the package's own constants. Opening a package must not take as long as running it.
inline constexpr std::int64_t kFoldingWork = std::int64_t{1} << 28;
inline constexpr std::int64_t kFoldingWorkPerConstant = 32;

/// Bytes of the arena that holds all intermediate tensors of a run.
inline constexpr std::int64_t kMaxArenaBytes = std::int64_t{16} << 30;

}  // namespace ulmora::engine::limits
