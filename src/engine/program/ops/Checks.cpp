#include "engine/program/ops/Checks.h"

#include "engine/Error.h"

#include <string>

namespace ulmora::engine::program {
namespace {

[[noreturn]] void FailElement(const OpCall& call, std::string_view parameter, ElementType found,
                              std::string_view expected) {
  call.Fail(std::string(parameter) + " is of type " + std::string(NameOf(found)) + ", expected " +
            std::string(expected));
}

}  // namespace

void RequireFloats(const OpCall& call, std::string_view parameter, std::size_t index) {
  const ElementType element = call.Type(parameter, index).element;
  if (StorageOf(element) != Storage::Float) FailElement(call, parameter, element, "floats");
}

void RequireInts(const OpCall& call, std::string_view parameter, std::size_t index) {
  const ElementType element = call.Type(parameter, index).element;
  if (StorageOf(element) != Storage::Int) FailElement(call, parameter, element, "integers");
}

void RequireBools(const OpCall& call, std::string_view parameter, std::size_t index) {
  const ElementType element = call.Type(parameter, index).element;
  if (StorageOf(element) != Storage::Bool) FailElement(call, parameter, element, "bools");
}

void RequireNumbers(const OpCall& call, std::string_view parameter, std::size_t index) {
  const ElementType element = call.Type(parameter, index).element;
  const Storage storage = StorageOf(element);
  if (storage != Storage::Float && storage != Storage::Int) FailElement(call, parameter, element, "numbers");
}

void RequireData(const OpCall& call, std::string_view parameter, std::size_t index) {
  const ElementType element = call.Type(parameter, index).element;
  if (StorageOf(element) == Storage::String) FailElement(call, parameter, element, "numbers or bools");
}

void RequireRank(const OpCall& call, std::string_view parameter, std::size_t least, std::size_t most) {
  const Shape& shape = call.ShapeOf(parameter);
  if (shape.size() >= least && shape.size() <= most) return;
  std::string expected = std::to_string(least);
  if (most != least) expected += " to " + std::to_string(most);
  call.Fail(std::string(parameter) + " has shape " + ToString(shape) + ", expected rank " + expected);
}

void RequireFloatVector(const OpCall& call, std::string_view parameter, std::int64_t length) {
  RequireFloats(call, parameter);
  RequireShape(call, parameter, {length});
}

void RequireShape(const OpCall& call, std::string_view parameter, const Shape& expected) {
  const Shape& shape = call.ShapeOf(parameter);
  if (shape != expected) {
    call.Fail(std::string(parameter) + " has shape " + ToString(shape) + ", expected " + ToString(expected));
  }
}

std::int64_t CountElements(const OpCall& call, const Shape& shape) {
  try {
    return ElementCount(shape);
  } catch (const Error& error) {
    call.Fail(error.what());
  }
}

std::vector<std::int64_t> IntsOr(const OpCall& call, std::string_view parameter, std::size_t length, std::int64_t least,
                                 std::int64_t fallback) {
  if (!call.Has(parameter)) return std::vector<std::int64_t>(length, fallback);
  std::vector<std::int64_t> values = call.Ints(parameter);
  if (values.size() != length) {
    call.Fail(std::string(parameter) + " has " + std::to_string(values.size()) + " entries, expected " +
              std::to_string(length));
  }
  for (const std::int64_t value : values) {
    if (value < least || value > INT32_MAX) {
      call.Fail(std::string(parameter) + " has an entry " + std::to_string(value) + ", expected at least " +
                std::to_string(least));
    }
  }
  return values;
}

std::vector<TensorType> LikeX(const OpCall& call) {
  RequireData(call, "x");
  return {call.Type("x")};
}

std::vector<TensorType> LikeFloatX(const OpCall& call) {
  RequireFloats(call, "x");
  return {call.Type("x")};
}

}  // namespace ulmora::engine::program
