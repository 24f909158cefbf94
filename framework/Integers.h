// The unsigned integers of keys and attributes, under the names that the entities use.
#pragma once

#include <cstdint>

namespace [[gnu::visibility("default")]] Kiv {

// The unsigned integers, by their number of bits.
using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;

}  // namespace Kiv
