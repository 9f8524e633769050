#pragma once
// One JSON document, written as it is made, without line breaks.

#include <cstdint>
#include <ostream>
#include <string>

namespace ulmora::tools {

/// Puts the commas. Whoever uses it closes what he opens and gives every value in an object a key.
class JsonWriter {
 public:
  explicit JsonWriter(std::ostream& stream) : stream_(stream) {}

  void BeginObject() { Open('{'); }
  void EndObject() { Close('}'); }
  void BeginArray() { Open('['); }
  void EndArray() { Close(']'); }

  void Key(const std::string& name);
  void Text(const std::string& text);
  void Whole(std::int64_t number);
  /// Nine digits; null if the number is not finite, which JSON cannot say.
  void Number(double number);
  void Bool(bool value);
  void Null();

  void Text(const std::string& key, const std::string& text) {
    Key(key);
    Text(text);
  }
  void Whole(const std::string& key, std::int64_t number) {
    Key(key);
    Whole(number);
  }
  void Number(const std::string& key, double number) {
    Key(key);
    Number(number);
  }
  void Bool(const std::string& key, bool value) {
    Key(key);
    Bool(value);
  }

 private:
  void Open(char bracket);
  void Close(char bracket);
  void Separate();

  std::ostream& stream_;
  bool follows_ = false;  ///< something stands before on the same level
};

}  // namespace ulmora::tools
