// A JSON object written field by field, for kovaget's --json output.
// Strings are the agent's bytes, which need not be UTF-8: every byte outside
// printable ASCII is written as \u00XX (the code point of the byte's value),
// so the output is plain ASCII and a reader gets each byte back by taking
// every code point of the string as one byte.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kova::client {

// `bytes` as a quoted JSON string.
std::string json_string(std::string_view bytes);

class JsonObject {
 public:
  JsonObject& add(std::string_view key, std::string_view text);
  JsonObject& add(std::string_view key, const char* text) { return add(key, std::string_view(text)); }
  JsonObject& add(std::string_view key, int64_t number);
  JsonObject& add(std::string_view key, int number) { return add(key, static_cast<int64_t>(number)); }
  JsonObject& add(std::string_view key, bool value);
  // A value that is already JSON (an object or an array).
  JsonObject& add_json(std::string_view key, std::string_view json);
  // Appends the fields of `other`.
  JsonObject& merge(const JsonObject& other);
  bool empty() const { return body_.empty(); }
  // "{...}".
  std::string str() const { return "{" + body_ + "}"; }

 private:
  void key(std::string_view name);
  std::string body_;
};

// "[a,b,...]" of JSON values.
class JsonArray {
 public:
  JsonArray& add_json(std::string_view json);
  std::string str() const { return "[" + body_ + "]"; }

 private:
  std::string body_;
};

}  // namespace kova::client
