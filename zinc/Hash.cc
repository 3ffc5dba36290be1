#include "zinc/Hash.h"

#include <cstring>

namespace Zinc {

void Hash::mixBytes(const void* data, size_t len) {
  const auto* p = static_cast<const unsigned char*>(data);
  while (len >= 4) {
    uint32_t w;
    std::memcpy(&w, p, 4);  // host order: every supported platform is little-endian
    mix(w);
    p += 4;
    len -= 4;
  }
  uint32_t tail = 0;
  for (size_t i = 0; i < len; ++i) tail |= static_cast<uint32_t>(p[i]) << (8 * i);
  mix(tail ^ (static_cast<uint32_t>(len) << 24));
}

uint32_t hashBytes(const void* data, size_t len, uint32_t seed) {
  Hash h(seed);
  h.mixBytes(data, len);
  return h.result();
}

}  // namespace Zinc
