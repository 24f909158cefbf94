#include "agent/live/record.h"

#include <array>
#include <bit>
#include <memory>
#include <stdexcept>

#include <openssl/evp.h>

namespace vnagent {
namespace {

class Digest {
 public:
  Digest() {
    if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) fail();
  }

  void add(std::string_view bytes) {
    if (EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) != 1) fail();
  }
  void add(uint64_t number) {
    std::array<char, 8> bytes{};
    for (char& byte : bytes) {
      byte = static_cast<char>(number & 0xff);
      number >>= 8;
    }
    add(std::string_view(bytes.data(), bytes.size()));
  }
  // With its length, so that texts side by side cannot be mistaken for others.
  void addText(std::string_view text) {
    add(text.size());
    add(text);
  }

  std::string first16Digits() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    if (EVP_DigestFinal_ex(context_.get(), bytes.data(), nullptr) != 1) fail();
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < 8; ++i) {
      text += kDigits[bytes[i] >> 4];
      text += kDigits[bytes[i] & 0xf];
    }
    return text;
  }

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };

  [[noreturn]] static void fail() { throw std::runtime_error("cannot compute SHA-256"); }

  std::unique_ptr<EVP_MD_CTX, Free> context_{EVP_MD_CTX_new()};
};

}  // namespace

std::string nextCheck(std::string_view before, const Record& record) {
  Digest digest;
  digest.addText(before);
  digest.add(record.sequence);
  digest.add(record.revision);
  digest.add(static_cast<uint64_t>(record.kind));
  digest.add(std::bit_cast<uint64_t>(record.advance));
  digest.addText(record.event);
  for (const std::string& uuid : record.drawn) digest.addText(uuid);
  return digest.first16Digits();
}

}  // namespace vnagent
