#include "update/checksum.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "base/log.h"
#include "platform/unique.h"

namespace kova {
namespace {

using Block = std::array<unsigned char, kCipherBlock>;

// The secret the server side shares: it must compute its checksums with
// these same values (README.md lists them). Nothing else holds them.
constexpr Block kKeyBytes = {0x3A, 0x91, 0x5C, 0xE2, 0x07, 0xB4, 0x68, 0x1F,
                             0xD3, 0x2E, 0x85, 0x49, 0xF0, 0x6B, 0xA7, 0x14};
constexpr Block kIvBytes = {0xC5, 0x28, 0x7E, 0x93, 0x4D, 0xB1, 0x0A, 0xE6,
                            0x57, 0xFC, 0x32, 0x8D, 0x19, 0x64, 0xAB, 0xD0};

std::string hex_text(const Block& bytes) {
  std::string text;
  for (unsigned char b : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02X", b);
    text += digits;
  }
  return text;
}

// The bytes of a 32-digit hexadecimal text, as the cipher's key set-up
// reads the texts above; false for any other text.
bool hex_bytes(const std::string& text, Block& out) {
  if (text.size() != 2 * out.size()) return false;
  const auto digit = [](char c) {
    return c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
  };
  for (size_t i = 0; i < out.size(); ++i) {
    const int high = digit(text[2 * i]), low = digit(text[2 * i + 1]);
    if (high < 0 || low < 0) return false;
    out[i] = static_cast<unsigned char>(high * 16 + low);
  }
  return true;
}

// The cipher, from the cryptographic library loaded by the request that
// needs it. Linked to the program, the library would be mapped in the
// listening process, and its relocated tables are pages every fork copies.
struct Cipher {
  decltype(&EVP_CIPHER_CTX_new) ctx_new = nullptr;
  decltype(&EVP_CIPHER_CTX_free) ctx_free = nullptr;
  decltype(&EVP_aes_128_cbc) aes_128_cbc = nullptr;
  decltype(&EVP_EncryptInit_ex) encrypt_init = nullptr;
  decltype(&EVP_CIPHER_CTX_set_padding) set_padding = nullptr;
  decltype(&EVP_EncryptUpdate) encrypt_update = nullptr;
  decltype(&EVP_EncryptFinal_ex) encrypt_final = nullptr;
};

template <typename F>
bool bind_symbol(void* library, const char* name, F& function) {
  function = reinterpret_cast<F>(::dlsym(library, name));
  return function != nullptr;
}

// Loaded once per process and kept; nullptr after logging why not.
const Cipher* cipher_functions() {
  static Cipher cipher;
  static bool loaded = false;
  if (loaded) return &cipher;
  void* library = ::dlopen(KOVA_CRYPTO_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr ||
      !(bind_symbol(library, "EVP_CIPHER_CTX_new", cipher.ctx_new) && bind_symbol(library, "EVP_CIPHER_CTX_free", cipher.ctx_free) &&
        bind_symbol(library, "EVP_aes_128_cbc", cipher.aes_128_cbc) &&
        bind_symbol(library, "EVP_EncryptInit_ex", cipher.encrypt_init) &&
        bind_symbol(library, "EVP_CIPHER_CTX_set_padding", cipher.set_padding) &&
        bind_symbol(library, "EVP_EncryptUpdate", cipher.encrypt_update) &&
        bind_symbol(library, "EVP_EncryptFinal_ex", cipher.encrypt_final))) {
    log_printf("E-CRYPTO", "Unable to load the cipher from %s: %s", KOVA_CRYPTO_LIBRARY, ::dlerror());
    if (library != nullptr) ::dlclose(library);
    return nullptr;
  }
  loaded = true;
  return &cipher;
}

struct CipherFree {
  decltype(&EVP_CIPHER_CTX_free) free;
  void operator()(EVP_CIPHER_CTX* ctx) const { free(ctx); }
};

}  // namespace

int Rijndael_Set_Key(std::string& text_out) {
  text_out = hex_text(kKeyBytes);
  return 1;
}

int Rijndael_Set_IV(std::string& text_out) {
  text_out = hex_text(kIvBytes);
  return 1;
}

int Rijndael_Checksum_Text(const std::string& path, std::string& text_out) {
  text_out.clear();
  UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.get() < 1) return 0;

  std::string key_text, iv_text;
  (void)Rijndael_Set_Key(key_text);
  (void)Rijndael_Set_IV(iv_text);
  Block key{}, iv{};
  const Cipher* evp = cipher_functions();
  if (evp == nullptr) return 0;
  std::unique_ptr<EVP_CIPHER_CTX, CipherFree> cipher(evp->ctx_new(), CipherFree{evp->ctx_free});
  const int ready = cipher != nullptr && hex_bytes(key_text, key) && hex_bytes(iv_text, iv) &&
                    evp->encrypt_init(cipher.get(), evp->aes_128_cbc(), nullptr, key.data(), iv.data()) == 1 &&
                    evp->set_padding(cipher.get(), 0) == 1;
  if (!ready) {
    std::fprintf(stderr, "makeKey error %d\n", ready);
    return 0;
  }

  // Each read lands in the freshly cleared block, so what is enciphered is
  // the last piece read: the checksum covers that one block only, and the
  // server's checksums are made the same way.
  Block block{};
  for (int reads = 0; reads < kChecksumReads; ++reads) {
    block.fill(0);
    ssize_t n;
    while ((n = ::read(file.get(), block.data(), block.size())) < 0 && errno == EINTR) {
    }
    if (n <= 0) break;
  }
  file.reset();

  Block out{};
  int out_length = 0, final_length = 0;
  if (evp->encrypt_update(cipher.get(), out.data(), &out_length, block.data(), static_cast<int>(block.size())) != 1 ||
      evp->encrypt_final(cipher.get(), out.data() + out_length, &final_length) != 1 ||
      out_length + final_length != static_cast<int>(out.size())) {
    std::fprintf(stderr, "blockEncrypt error %d\n", 8 * (out_length + final_length));
    return 0;
  }
  for (unsigned char b : out) {
    char digits[4];
    std::snprintf(digits, sizeof digits, "%03u", static_cast<unsigned>(b));
    text_out += digits;
  }
  return 1;
}

int Rijndael_Checksum_File(const std::string& path, const std::string& expected) {
  std::string text;
  if (Rijndael_Checksum_Text(path, text) != 1) return 0;
  // A shorter expected text ends where the checksum still has digits.
  return expected.size() >= kChecksumCompared && text.compare(0, kChecksumCompared, expected, 0, kChecksumCompared) == 0
             ? 1
             : 0;
}

}  // namespace kova
