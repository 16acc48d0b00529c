// The plain-text settings, lock and state files of the agent and its
// components: one "KEY~value" line per setting. A reader tests each line
// against a fixed, ordered key table by substring search, and the first key
// found wins; each file's table says which field a key fills and how, and
// carries that file's own rules as hooks.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace kova {

// How a key's value is taken from the rest of its line (what follows the
// key, line feed included).
enum class KeyValue {
  kNone,         // recognised, nothing stored (a hook may take it)
  kInt,          // atoi(3) of the rest
  kText,         // the rest less its last character (the line feed; on a
                 // last line without one, its last real character)
  kTextAsIs,     // the rest, line feed included
  kTrimmed,      // the rest less leading blanks and tabs and trailing
                 // blanks, tabs, CR and LF
};

// One row of a file's key table, for records of type R.
template <class R>
struct KeyField {
  std::string_view key;
  KeyValue value = KeyValue::kNone;
  int R::*number = nullptr;        // kInt
  std::string R::*text = nullptr;  // kText, kTextAsIs, kTrimmed
  int R::*given = nullptr;         // set to 1 whenever the key is taken
  // The key must begin the line and is compared without its "~" (so
  // "DATA_DIR~" is "DATA_DIR" at the start of the line).
  bool at_line_start = false;
  // A file's own rule for this key, run after the value is stored, with
  // the rest of the line.
  void (*hook)(R& record, std::string_view rest) = nullptr;

  constexpr KeyField() = default;
  constexpr KeyField(std::string_view k, KeyValue v, int R::*n, std::string R::*t, int R::*g = nullptr,
                     bool start = false, void (*h)(R&, std::string_view) = nullptr)
      : key(k), value(v), number(n), text(t), given(g), at_line_start(start), hook(h) {}

  // A row declared once for the fields that several records share through
  // a common base serves each of them. Such a row carries no hook: a hook
  // is written for one record type.
  template <class Base>
    requires(std::is_base_of_v<Base, R> && !std::is_same_v<Base, R>)
  constexpr KeyField(const KeyField<Base>& shared)
      : key(shared.key), value(shared.value), number(shared.number), text(shared.text), given(shared.given),
        at_line_start(shared.at_line_start) {}
};

// Row builders, so that tables read as key, kind and field.
template <class R>
constexpr KeyField<R> int_key(std::string_view key, int R::*field, int R::*given = nullptr) {
  return {key, KeyValue::kInt, field, nullptr, given};
}
template <class R>
constexpr KeyField<R> text_key(std::string_view key, std::string R::*field, int R::*given = nullptr) {
  return {key, KeyValue::kText, nullptr, field, given};
}
template <class R>
constexpr KeyField<R> raw_text_key(std::string_view key, std::string R::*field) {
  return {key, KeyValue::kTextAsIs, nullptr, field};
}
template <class R>
constexpr KeyField<R> trimmed_key(std::string_view key, std::string R::*field) {
  return {key, KeyValue::kTrimmed, nullptr, field};
}
template <class R>
constexpr KeyField<R> hook_key(std::string_view key, void (*hook)(R&, std::string_view), bool at_line_start = false) {
  return {key, KeyValue::kNone, nullptr, nullptr, nullptr, at_line_start, hook};
}

// A run of rows that several tables list in the same order.
template <class R, size_t N>
using KeyRun = std::array<KeyField<R>, N>;

template <class T>
struct key_row_count : std::integral_constant<size_t, 1> {};
template <class R, size_t N>
struct key_row_count<KeyRun<R, N>> : std::integral_constant<size_t, N> {};

// A table for records of type R made of rows and runs of rows, in order;
// rows declared for a base of R serve R.
template <class R, class... Parts>
constexpr auto key_table(const Parts&... parts) {
  std::array<KeyField<R>, (key_row_count<Parts>::value + ...)> table{};
  size_t next = 0;
  auto add = [&](const auto& part) {
    if constexpr (requires { part.size(); })
      for (const auto& row : part) table[next++] = KeyField<R>(row);
    else
      table[next++] = KeyField<R>(part);
  };
  (add(parts), ...);
  return table;
}

// Reads the whole file at `path` into `lines`, each line with its line feed
// (the last one may lack it). Returns 0, or errno when the file cannot be
// opened or read; `lines` is then empty.
[[nodiscard]] int read_key_lines(const std::string& path, std::vector<std::string>& lines);

// The value texts as the kinds above take them.
std::string value_less_last(std::string_view rest);
std::string value_trimmed(std::string_view rest);
int value_to_int(std::string_view rest);  // atoi(3) on a text that need not end in NUL

// The row of `table` whose key a reader takes `line` for (the first found),
// with `rest` set to what follows the key; nullptr when no key occurs in it.
template <class R>
const KeyField<R>* match_key_line(std::string_view line, std::span<const KeyField<R>> table, std::string_view& rest) {
  for (const KeyField<R>& row : table) {
    if (row.at_line_start) {
      const std::string_view bare = row.key.substr(0, row.key.size() - 1);
      if (line.substr(0, bare.size()) != bare) continue;
      rest = line.substr(std::min(line.size(), row.key.size()));
    } else {
      const size_t at = line.find(row.key);
      if (at == std::string_view::npos) continue;
      rest = line.substr(at + row.key.size());
    }
    return &row;
  }
  return nullptr;
}

// Applies one line to `record` through `table`; false when no key of the
// table occurs in it.
template <class R>
bool apply_key_line(std::string_view line, std::span<const KeyField<R>> table, R& record) {
  std::string_view rest;
  const KeyField<R>* row = match_key_line(line, table, rest);
  if (row == nullptr) return false;
  switch (row->value) {
    case KeyValue::kNone: break;
    case KeyValue::kInt: record.*row->number = value_to_int(rest); break;
    case KeyValue::kText: record.*row->text = value_less_last(rest); break;
    case KeyValue::kTextAsIs: record.*row->text = std::string(rest); break;
    case KeyValue::kTrimmed: record.*row->text = value_trimmed(rest); break;
  }
  if (row->given != nullptr) record.*row->given = 1;
  if (row->hook != nullptr) row->hook(record, rest);
  return true;
}

// Reads the file at `path` over `record`: the number of lines that held a
// key of the table, or -1 with `error` set to errno when the file cannot be
// opened or read (the record is then untouched).
template <class R>
int read_key_file(const std::string& path, std::span<const KeyField<R>> table, R& record, int& error) {
  std::vector<std::string> lines;
  error = read_key_lines(path, lines);
  if (error != 0) return -1;
  int matched = 0;
  for (const std::string& line : lines)
    if (apply_key_line(line, table, record)) ++matched;
  return matched;
}

// The text of a key file, written line by line in the file's fixed order.
class KeyFileText {
 public:
  KeyFileText& put(std::string_view key, int value);
  KeyFileText& put(std::string_view key, std::string_view value);
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

}  // namespace kova
