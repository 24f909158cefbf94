// A SHA-256 digest of texts and numbers, of which 64 bits are used: for check values and checksums.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <openssl/evp.h>

namespace vnagent {

// Throws std::runtime_error when the library cannot compute it.
class Digest {
 public:
  Digest();

  void add(uint64_t number);
  // With its length, so that texts side by side cannot be mistaken for others.
  void add(std::string_view text);

  // The first 64 bits; the digest is then used up.
  uint64_t first64Bits();

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };

  void addBytes(std::string_view bytes);

  std::unique_ptr<EVP_MD_CTX, Free> context_;
};

// As 16 hexadecimal digits.
std::string hexadecimal(uint64_t number);

}  // namespace vnagent
