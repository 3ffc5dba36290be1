// Test helpers for slab tables: a via-set-like record whose encoded length varies with its
// number of vias (44 bytes of fixed fields, key first, and 12 bytes per via).
#pragma once

#include <compare>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ledger/SlabOps.h"
#include "zinc/Hash.h"

namespace LedgerTest {

// A via set: 44 bytes of fixed fields (key first) and 12 bytes per via.
struct ViaSetKey {
  uint32_t id = 0;
  uint32_t hash() const { return Zinc::Hash::finalize(id * 2654435761u); }
  auto operator<=>(const ViaSetKey&) const = default;
};
struct Via {
  uint32_t a, b, c;
  bool operator==(const Via&) const = default;
};
struct ViaSet {
  ViaSetKey key;
  uint8_t fixed[40] = {};
  std::vector<Via> vias;
  bool operator==(const ViaSet&) const = default;
};
struct ViaSetCodec {
  static size_t encodedSize(const ViaSet& v) { return 44 + 12 * v.vias.size(); }
  static void encode(const ViaSet& v, uint8_t* out) {
    std::memcpy(out, &v.key, 4);
    std::memcpy(out + 4, v.fixed, 40);
    if (!v.vias.empty()) std::memcpy(out + 44, v.vias.data(), 12 * v.vias.size());
  }
  static void decode(const uint8_t* in, size_t size, ViaSet& out) {
    if (size < 44 || (size - 44) % 12 != 0) {
      throw Ledger::CorruptionException("ViaSetCodec::decode() impossible size " +
                                        std::to_string(size));
    }
    std::memcpy(&out.key, in, 4);
    std::memcpy(out.fixed, in + 4, 40);
    out.vias.resize((size - 44) / 12);
    if (!out.vias.empty()) std::memcpy(out.vias.data(), in + 44, 12 * out.vias.size());
  }
  static ViaSetKey keyOfEncoded(const uint8_t* in, size_t) {
    ViaSetKey k;
    std::memcpy(&k, in, 4);
    return k;
  }
  static ViaSetKey keyOf(const ViaSet& v) { return v.key; }
  static const char* typeName() { return "Test::ViaSet"; }
  static constexpr size_t kMaxEncodedSize = 44 + 12 * 128;
};
using ViaOps = Ledger::SlabOps<ViaSetKey, ViaSet, ViaSetCodec>;

inline ViaSet makeViaSet(uint32_t id, size_t vias, uint32_t version) {
  ViaSet v;
  v.key.id = id;
  std::memcpy(v.fixed, &version, sizeof(version));
  for (size_t i = 0; i < vias; ++i) v.vias.push_back(Via{id, version, static_cast<uint32_t>(i)});
  return v;
}

// A via set as makeViaSet() made it for its key and the version in its fixed part: every via
// of the same write, as many as that write had (`viasOf`), nothing torn or mixed.
template <class ViasOf>
bool wholeViaSet(const ViaSet& v, ViasOf viasOf) {
  uint32_t version;
  std::memcpy(&version, v.fixed, sizeof(version));
  return v == makeViaSet(v.key.id, viasOf(v.key.id, version), version);
}

}  // namespace LedgerTest
