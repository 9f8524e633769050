#pragma once
// Element types, shapes, and constant tensors as the whole engine holds them once they have left the package.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace ulmora::engine {

/// The element types that a package may declare. Arithmetic does not follow them: see StorageOf.
enum class ElementType : std::uint8_t {
  Bool,
  String,
  Float16,
  Float32,
  Float64,
  BFloat16,
  Float8E4M3FN,
  Float8E5M2,
  Int4,
  Int8,
  Int16,
  Int32,
  Int64,
  UInt1,
  UInt2,
  UInt3,
  UInt4,
  UInt6,
  UInt8,
  UInt16,
  UInt32,
  UInt64,
};

/// How elements are held in memory: every float type as float32, every integer type as int32 (wider values saturate:
/// they only occur as "to the end" bounds), bool as one byte.
enum class Storage : std::uint8_t { Float, Int, Bool, String };

[[nodiscard]] Storage StorageOf(ElementType type) noexcept;

/// "float16", "int32", ... for messages.
[[nodiscard]] std::string_view NameOf(ElementType type) noexcept;

/// Sizes of the dimensions, outermost first. Rank 0 (empty) is a scalar with one element.
using Shape = std::vector<std::int64_t>;

/// A dimension that is known only when the first tensor arrives.
inline constexpr std::int64_t kUnknownDim = -1;

/// "[1, 3, 512, 512]", with "?" for unknown dimensions.
[[nodiscard]] std::string ToString(const Shape& shape);

/// True if no dimension is unknown.
[[nodiscard]] bool IsStatic(const Shape& shape) noexcept;

/// Product of the dimensions, 1 for a scalar. Throws Error(Translate) if a dimension is unknown or negative, if the
/// rank is above limits::kMaxRank or if the product is above limits::kMaxTensorElements.
[[nodiscard]] std::int64_t ElementCount(const Shape& shape);

/// What is known of a tensor before it has data.
struct TensorType {
  ElementType element = ElementType::Float32;
  Shape shape;            ///< meaningless while rankKnown is false
  bool rankKnown = true;  ///< false only for declared types of flexible programs

  friend bool operator==(const TensorType&, const TensorType&) = default;
};

/// An immutable dense row-major tensor. Copies share the elements.
class Tensor {
 public:
  /// Each factory requires data.size() == ElementCount(shape) and an element type of its storage class, and throws
  /// Error(Translate) otherwise.
  static Tensor Floats(Shape shape, std::vector<float> data, ElementType type = ElementType::Float32);
  static Tensor Ints(Shape shape, std::vector<std::int32_t> data, ElementType type = ElementType::Int32);
  static Tensor Bools(Shape shape, std::vector<std::uint8_t> data);
  static Tensor Strings(Shape shape, std::vector<std::string> data);

  /// Scalars of rank 0.
  static Tensor Float(float value) { return Floats({}, {value}); }
  static Tensor Int(std::int32_t value) { return Ints({}, {value}); }
  static Tensor Bool(bool value) { return Bools({}, {static_cast<std::uint8_t>(value)}); }
  static Tensor Text(std::string value) { return Strings({}, {std::move(value)}); }
  /// A vector of rank 1.
  static Tensor IntVector(std::vector<std::int32_t> values);

  [[nodiscard]] ElementType element() const noexcept { return element_; }
  [[nodiscard]] Storage storage() const noexcept { return StorageOf(element_); }
  [[nodiscard]] const Shape& shape() const noexcept { return shape_; }
  [[nodiscard]] TensorType type() const { return {element_, shape_, true}; }
  [[nodiscard]] std::int64_t count() const noexcept;

  /// The elements. Asking for another storage class than the tensor's throws std::bad_variant_access.
  [[nodiscard]] std::span<const float> floats() const;
  [[nodiscard]] std::span<const std::int32_t> ints() const;
  [[nodiscard]] std::span<const std::uint8_t> bools() const;
  [[nodiscard]] std::span<const std::string> strings() const;

  /// The same elements under another shape of the same count, or another element type of the same storage class.
  [[nodiscard]] Tensor Reshaped(Shape shape) const;
  [[nodiscard]] Tensor Retyped(ElementType type) const;

  /// Identity of the shared elements: equal for copies, for caches of prepared weights.
  [[nodiscard]] const void* identity() const noexcept;

 private:
  template <typename T>
  using Shared = std::shared_ptr<const std::vector<T>>;
  using Elements = std::variant<Shared<float>, Shared<std::int32_t>, Shared<std::uint8_t>, Shared<std::string>>;

  Tensor(ElementType element, Shape shape, Elements elements);

  ElementType element_;
  Shape shape_;
  Elements elements_;
};

}  // namespace ulmora::engine
