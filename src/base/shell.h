// Quoting for the few places where a shell command line is the interface.
#pragma once

#include <string>
#include <string_view>

namespace kova {

// `value` as one shell word: wrapped in single quotes, each embedded single
// quote written as '\''. Every value that came from outside (the wire, a
// file name, a settings file) goes through this before it reaches a shell.
std::string shell_quote(std::string_view value);

// `value` unchanged when a shell reads it literally as one word (letters,
// digits and / . _ - + , : @ % =, not empty), else shell_quote(value): for
// lines whose ordinary form is fixed, such as a generated script.
std::string shell_word(std::string_view value);

}  // namespace kova
