#include "json.h"

#include <cstdio>

namespace kova::client {

std::string json_string(std::string_view bytes) {
  std::string out = "\"";
  for (unsigned char c : bytes) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c >= 0x20 && c < 0x7f) {
          out += static_cast<char>(c);
        } else {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        }
    }
  }
  return out + "\"";
}

void JsonObject::key(std::string_view name) {
  if (!body_.empty()) body_ += ',';
  body_ += json_string(name);
  body_ += ':';
}

JsonObject& JsonObject::add(std::string_view name, std::string_view text) {
  key(name);
  body_ += json_string(text);
  return *this;
}

JsonObject& JsonObject::add(std::string_view name, int64_t number) {
  key(name);
  body_ += std::to_string(number);
  return *this;
}

JsonObject& JsonObject::add(std::string_view name, bool value) {
  key(name);
  body_ += value ? "true" : "false";
  return *this;
}

JsonObject& JsonObject::add_json(std::string_view name, std::string_view json) {
  key(name);
  body_ += json;
  return *this;
}

JsonObject& JsonObject::merge(const JsonObject& other) {
  if (!body_.empty() && !other.body_.empty()) body_ += ',';
  body_ += other.body_;
  return *this;
}

JsonArray& JsonArray::add_json(std::string_view json) {
  if (!body_.empty()) body_ += ',';
  body_ += json;
  return *this;
}

}  // namespace kova::client
