// The framework's hash accumulator. Deterministic across processes, builds and hosts: tables
// in shared memory are hashed by one process and searched by another, so nothing here may
// depend on addresses, seeds chosen at run time or the standard library's std::hash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Zinc {

// Murmur3-style 32-bit accumulator: mix() one word per attribute, then result().
class Hash {
 public:
  constexpr explicit Hash(uint32_t seed = 0) : h_(seed) {}

  constexpr void mix(uint32_t word) {
    uint32_t k = word * 0xcc9e2d51u;
    k = rotl(k, 15) * 0x1b873593u;
    h_ ^= k;
    h_ = rotl(h_, 13) * 5 + 0xe6546b64u;
    ++words_;
  }
  constexpr void mix64(uint64_t word) {
    mix(static_cast<uint32_t>(word));
    mix(static_cast<uint32_t>(word >> 32));
  }
  void mixBytes(const void* data, size_t len);

  constexpr uint32_t result() const { return finalize(h_ ^ (words_ * 4)); }

  static constexpr uint32_t finalize(uint32_t h) {
    h ^= h >> 16;
    h *= 0x85ebca6bu;
    h ^= h >> 13;
    h *= 0xc2b2ae35u;
    h ^= h >> 16;
    return h;
  }

 private:
  static constexpr uint32_t rotl(uint32_t x, int r) { return (x << r) | (x >> (32 - r)); }
  uint32_t h_;
  uint32_t words_ = 0;
};

// Hash of a byte string (used for strings and for header checksums).
uint32_t hashBytes(const void* data, size_t len, uint32_t seed = 0);
inline uint32_t hashString(std::string_view s) { return hashBytes(s.data(), s.size()); }

}  // namespace Zinc
