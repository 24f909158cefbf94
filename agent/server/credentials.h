// Who may connect: the token file, and the principals of its lines.
//
//   # NAME ROLE SHA256-OF-TOKEN
//   dashboard read 9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08
//   driver write:One,Two 60303ae22b998861bce3b28f33eec1be758a213c86c93c076dbe9f558c11c752
//   driver-2 write -
//
// A `-` is a principal without a token: one that has a client certificate with this common name. A
// name may have several lines, each with a token, for the time in which one replaces another; all
// have the same role. A client certificate whose name has no line may read.
//
// Immutable once it is read, so any thread may ask it.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "agent/live/principal.h"

namespace vnagent {

// A file of credentials cannot be used; what() names it and says why.
class BadCredentials : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The role in the words of a token file; nothing for other text.
std::optional<Principal> principalOf(std::string_view name, std::string_view role);

class TokenTable {
 public:
  TokenTable() = default;

  // Reads a token file. Throws BadCredentials, also where others than its owner and group may read
  // or write it.
  static TokenTable read(const std::string& file);
  // `name` is that of the file, for messages.
  static TokenTable parse(std::string_view text, const std::string& name);

  // Whose token this is; nothing where it is nobody's. Takes the same time for each.
  std::optional<Principal> ofToken(std::string_view token) const;
  // Who has a client certificate of this common name.
  Principal ofCertificate(const std::string& commonName) const;

 private:
  using Digest = std::array<unsigned char, 32>;
  struct Token {
    Digest digest;
    std::string name;
  };

  void addLine(std::string_view line, const std::string& place);

  std::vector<Token> tokens_;
  std::map<std::string, Principal> principals_;
};

// The principal of a process that connected to the Unix socket: its user's name, or `uid:NNN`.
std::string userName(unsigned uid);

}  // namespace vnagent
