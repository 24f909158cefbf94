#include "agent/live/digest.h"

#include <array>
#include <stdexcept>

namespace vnagent {
namespace {

[[noreturn]] void fail() {
  throw std::runtime_error("cannot compute SHA-256");
}

// Fetched once: OpenSSL looks EVP_sha256() up each time that it is used.
const EVP_MD* sha256() {
  static const EVP_MD* const kDigest = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return kDigest;
}

}  // namespace

Digest::Digest() : context_(EVP_MD_CTX_new()) {
  if (!context_ || EVP_DigestInit_ex(context_.get(), sha256(), nullptr) != 1) fail();
}

void Digest::addBytes(std::string_view bytes) {
  if (EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) != 1) fail();
}

void Digest::add(uint64_t number) {
  std::array<char, 8> bytes{};
  for (char& byte : bytes) {
    byte = static_cast<char>(number & 0xff);
    number >>= 8;
  }
  addBytes(std::string_view(bytes.data(), bytes.size()));
}

void Digest::add(std::string_view text) {
  add(uint64_t{text.size()});
  addBytes(text);
}

uint64_t Digest::first64Bits() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
  if (EVP_DigestFinal_ex(context_.get(), bytes.data(), nullptr) != 1) fail();
  uint64_t number = 0;
  for (size_t i = 0; i < 8; ++i) number = number << 8 | bytes[i];
  return number;
}

std::string hexadecimal(uint64_t number) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text(16, '0');
  for (auto digit = text.rbegin(); digit != text.rend(); ++digit, number >>= 4) {
    *digit = kDigits[number & 0xf];
  }
  return text;
}

}  // namespace vnagent
