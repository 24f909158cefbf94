// Who sends a request, and what it may do.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vnagent {

enum class Role : uint8_t {
  kRead,          // reads everything
  kWriteRegions,  // reads and changes some regions, and sees nothing of others
  kWrite,         // reads and changes everything
  kAdmin,         // also forces locks, sets trace levels, and writes without a lock
};

struct Principal {
  std::string name;
  Role role = Role::kRead;
  std::vector<std::string> regions;  // of kWriteRegions alone; sorted

  bool isRestricted() const { return role == Role::kWriteRegions; }
  bool mayRead(std::string_view region) const {
    return !isRestricted() || std::ranges::binary_search(regions, region);
  }
  bool mayWrite() const { return role != Role::kRead; }
  bool isAdmin() const { return role == Role::kAdmin; }

  // The role as in a token file: "read", "write:RegionOne,RegionTwo", "write", "admin".
  std::string roleText() const;
};

}  // namespace vnagent
