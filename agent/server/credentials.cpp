#include "agent/server/credentials.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vnagent {
namespace {

constexpr std::string_view kBlanks = " \t\r";
constexpr size_t kMaxFile = size_t{16} << 20;

std::vector<std::string_view> wordsOf(std::string_view line) {
  std::vector<std::string_view> words;
  for (auto begin = line.find_first_not_of(kBlanks); begin != line.npos;) {
    const auto end = std::min(line.find_first_of(kBlanks, begin), line.size());
    words.push_back(line.substr(begin, end - begin));
    begin = line.find_first_not_of(kBlanks, end);
  }
  return words;
}

int digitOf(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

template <class Digest>
std::optional<Digest> digestOfDigits(std::string_view digits) {
  Digest digest{};
  if (digits.size() != 2 * digest.size()) return std::nullopt;
  for (size_t i = 0; i < digest.size(); ++i) {
    const int high = digitOf(digits[2 * i]);
    const int low = digitOf(digits[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    digest[i] = static_cast<unsigned char>(high * 16 + low);
  }
  return digest;
}

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  ~Descriptor() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

std::string contentOf(int descriptor, const std::string& name) {
  std::string content;
  std::array<char, 4096> buffer;
  for (;;) {
    const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw BadCredentials(fmt::format("{}: {}", name, std::strerror(errno)));
    if (count == 0) return content;
    content.append(buffer.data(), static_cast<size_t>(count));
    if (content.size() > kMaxFile) throw BadCredentials(name + ": is too large");
  }
}

}  // namespace

std::optional<Principal> principalOf(std::string_view name, std::string_view role) {
  constexpr std::string_view kRegions = "write:";
  Principal principal{.name = std::string(name), .role = Role::kRead, .regions = {}};
  if (role == "read") return principal;
  if (role == "write" || role == "admin") {
    principal.role = role == "write" ? Role::kWrite : Role::kAdmin;
    return principal;
  }
  if (!role.starts_with(kRegions)) return std::nullopt;
  principal.role = Role::kWriteRegions;
  for (auto rest = role.substr(kRegions.size());;) {
    const auto comma = std::min(rest.find(','), rest.size());
    if (comma == 0) return std::nullopt;
    principal.regions.emplace_back(rest.substr(0, comma));
    if (comma == rest.size()) break;
    rest.remove_prefix(comma + 1);
  }
  std::ranges::sort(principal.regions);
  principal.regions.erase(std::unique(principal.regions.begin(), principal.regions.end()),
                          principal.regions.end());
  return principal;
}

TokenTable TokenTable::read(const std::string& file) {
  const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (descriptor.get() < 0 || fstat(descriptor.get(), &status) != 0) {
    throw BadCredentials(fmt::format("{}: {}", file, std::strerror(errno)));
  }
  if ((status.st_mode & (S_IROTH | S_IWOTH)) != 0) {
    throw BadCredentials(file + ": others may read or write it; chmod o-rw");
  }
  return parse(contentOf(descriptor.get(), file), file);
}

TokenTable TokenTable::parse(std::string_view text, const std::string& name) {
  TokenTable table;
  for (size_t number = 1; !text.empty(); ++number) {
    const auto end = std::min(text.find('\n'), text.size());
    const auto line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.find_first_not_of(kBlanks) == line.npos || line.front() == '#') continue;
    table.addLine(line, fmt::format("{}:{}", name, number));
  }
  return table;
}

// A message never shows the line: it may hold a token by mistake.
void TokenTable::addLine(std::string_view line, const std::string& place) {
  const auto words = wordsOf(line);
  if (words.size() != 3) throw BadCredentials(place + ": is not NAME ROLE SHA256-OF-TOKEN");
  auto principal = principalOf(words[0], words[1]);
  if (!principal) {
    throw BadCredentials(place +
                         ": the role is none of read, write:REGION[,REGION...], write, "
                         "admin");
  }
  const std::string name = principal->name;
  const auto [known, isNew] = principals_.emplace(name, *principal);
  if (!isNew && known->second.roleText() != principal->roleText()) {
    throw BadCredentials(fmt::format("{}: '{}' has another role above", place, name));
  }
  if (words[2] == "-") return;
  const auto digest = digestOfDigits<Digest>(words[2]);
  if (!digest) {
    throw BadCredentials(place +
                         ": the SHA-256 of the token is 64 hexadecimal digits, or - where "
                         "there is no token");
  }
  tokens_.push_back({*digest, name});
}

std::optional<Principal> TokenTable::ofToken(std::string_view token) const {
  Digest digest{};
  unsigned size = 0;
  if (EVP_Digest(token.data(), token.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
    return std::nullopt;
  }
  const Token* found = nullptr;
  for (const Token& candidate : tokens_) {
    const bool same = CRYPTO_memcmp(candidate.digest.data(), digest.data(), digest.size()) == 0;
    found = same ? &candidate : found;
  }
  if (found == nullptr) return std::nullopt;
  return principals_.at(found->name);
}

Principal TokenTable::ofCertificate(const std::string& commonName) const {
  const auto known = principals_.find(commonName);
  if (known != principals_.end()) return known->second;
  return Principal{.name = commonName, .role = Role::kRead, .regions = {}};
}

std::string userName(unsigned uid) {
  passwd entry{};
  passwd* found = nullptr;
  std::array<char, 4096> buffer;
  if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
    return found->pw_name;
  }
  return fmt::format("uid:{}", uid);
}

}  // namespace vnagent
