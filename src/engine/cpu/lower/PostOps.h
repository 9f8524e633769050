#pragma once
// Fused steps as post-operations of the library's primitives.

#include "engine/cpu/Lowering.h"

#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

namespace ulmora::engine::cpu {

/// The result of a primitive as the library sees it: the operation's, or one with dimensions joined.
struct PostOpsTarget {
  Shape shape;
  Layout layout = Layout::Plain;
  std::size_t channelAxis = 1;        ///< of `shape`
  std::size_t resultChannelAxis = 1;  ///< of the operation's result
};

/// Attributes of a primitive that does some fused steps with its result, and the tensors that they read.
struct PostOps {
  /// A tensor that is combined with the result, given in the result's layout.
  struct Extra {
    int argument = 0;  ///< DNNL_ARG_...
    program::ValueId value = 0;
    Shape shape;  ///< of the value, with as many dimensions as the target
  };

  dnnl::primitive_attr attributes = onednn::PlainAttributes();
  std::vector<Extra> extras;
  std::optional<program::ValueId> sum;  ///< its elements must be in the result's buffer before
};

/// The first `count` fused steps of the operation as post-operations on a float result: none if one of them is beyond
/// post-operations. Whether a primitive takes the attributes is known when it has been described.
[[nodiscard]] std::optional<PostOps> MakePostOps(const LowerCall& call, std::size_t count, const PostOpsTarget& target);

/// What the post-operations read, for the layout plan.
void AddNeeds(const PostOps& postOps, Layout layout, const program::Program& program, std::vector<Need>& needs);

/// The buffer of the operation's result, holding the elements that the post-operations sum to it.
[[nodiscard]] BufferId PostOpsResult(Emitter& emitter, const PostOps& postOps, program::ValueId result, Layout layout);

/// The arguments by which the primitive gets the extra tensors.
void AddArguments(Emitter& emitter, const PostOps& postOps, Layout layout, std::vector<Argument>& arguments);

/// Tries post-operations for all fused steps, then for fewer, until `describe` accepts the attributes: calls
/// describe(postOps) -> optional description, and returns the description, the post-operations and the count.
template <typename Describe>
auto WithMostPostOps(const LowerCall& call, const PostOpsTarget& target, const Describe& describe) {
  using Description = typename decltype(describe(std::declval<const PostOps&>()))::value_type;
  struct Found {
    Description description;
    PostOps postOps;
    std::size_t fused = 0;
  };
  for (std::size_t count = call.operation.fused.size() + 1; count-- > 0;) {
    const std::optional<PostOps> postOps = MakePostOps(call, count, target);
    if (!postOps) continue;
    if (auto description = describe(*postOps)) return std::optional<Found>({*description, *postOps, count});
  }
  return std::optional<Found>();
}

}  // namespace ulmora::engine::cpu
