// The update file checksum: one 16-byte block of the file enciphered with
// AES-128 in CBC mode under a key and initialisation vector that the server
// side shares, written as 48 decimal digits. The server computes it the
// same way and sends it with the update; the agent compares.
#pragma once

#include <cstddef>
#include <string>

namespace kova {

inline constexpr size_t kCipherBlock = 16;
// The file is read in kCipherBlock pieces, at most this many times; only
// the last piece read is enciphered.
inline constexpr int kChecksumReads = 52;
inline constexpr size_t kChecksumDigits = 3 * kCipherBlock;
// How many leading characters of the checksum texts are compared.
inline constexpr size_t kChecksumCompared = 16;

// The key and the initialisation vector as the cipher takes them: 32
// upper-case hexadecimal digits, formed from their byte values. Return 1.
int Rijndael_Set_Key(std::string& text_out);
int Rijndael_Set_IV(std::string& text_out);

// The checksum text of the file at `path`: the block left by up to
// kChecksumReads reads of kCipherBlock bytes (each into the cleared block;
// the reads stop at the end of the file), enciphered, each output byte as
// three decimal digits. A file of at most 816 bytes therefore gives the
// checksum of an all-zero block; a longer one that of its bytes 816-831.
// Returns 1, or 0 when the file cannot be opened or the cipher fails
// (the cipher's failures are printed to standard error).
[[nodiscard]] int Rijndael_Checksum_Text(const std::string& path, std::string& text_out);

// 1 when the first kChecksumCompared characters of the file's checksum
// text and of `expected` agree (a shorter `expected` never does); 0
// otherwise, and when the file cannot be read.
[[nodiscard]] int Rijndael_Checksum_File(const std::string& path, const std::string& expected);

}  // namespace kova
