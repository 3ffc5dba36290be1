// The serialised layouts of the LFIB records that live in shared-memory tables, pinned in one
// place. Writer and readers are separate processes, possibly of different builds: a change of
// any size here changes the table file format and must be deliberate.
//
// A table slot is a 16-byte header followed by the value, rounded up to 8 bytes. Records with an
// inline array (LfibViaSet, LfibIpLookupVia) have a variable serialised length; their largest
// is pinned too, and so are the slab entries that hold via sets.
#pragma once

#include <cstddef>
#include <type_traits>

#include "ledger/Shape.h"
#include "lfib/LfibTypes.h"
#include "zinc/Value.h"

namespace Mpls::StoredLayouts {

inline constexpr size_t slotHeaderSize = 16;
constexpr size_t slotSize(size_t valueSize) { return (slotHeaderSize + valueSize + 7) / 8 * 8; }

template <class T>
constexpr bool storable() {
  return std::is_trivially_copyable_v<T> && Zinc::Serial<T>::fixed;
}

template <class T, size_t size>
constexpr bool fixedLayout() {
  return storable<T>() && Zinc::Serial<T>::size == size;
}

// Base types.
static_assert(fixedLayout<Wire::IpGenAddr, 20>());
static_assert(fixedLayout<Wire::IpGenPrefix, 24>());
static_assert(fixedLayout<Wire::MplsLabel, 4>());
static_assert(fixedLayout<Wire::MplsLabelOperation, 40>());
static_assert(fixedLayout<Wire::IntfId, 8>());
static_assert(fixedLayout<Bridging::VlanId, 2>());
static_assert(fixedLayout<Ledger::Fib::FecId, 8>());
static_assert(fixedLayout<RouteKey, 12>());
static_assert(fixedLayout<RouteMetric, 24>());
static_assert(fixedLayout<FwdEqvClass, 60>());

// Keys.
static_assert(fixedLayout<LfibViaKey, 12>());
static_assert(fixedLayout<LfibViaSetKey, 16>());
static_assert(fixedLayout<LfibDot1qTagToVlanKey, 8>());
static_assert(fixedLayout<LfibDot1qTagToVlanCompositeKey, 10>());

// Route and hardware status records.
static_assert(fixedLayout<LfibRoute, 116>() && slotSize(116) == 136);
static_assert(fixedLayout<RouteInfo, 16>());
static_assert(fixedLayout<LfibViaSetInfo, 20>());

// Vias.
static_assert(fixedLayout<LfibMplsVia, 100>() && slotSize(100) == 120);
static_assert(fixedLayout<LfibPwVia, 28>() && slotSize(28) == 48);
static_assert(fixedLayout<LfibEvpnEthernetSegmentFilterVia, 20>() && slotSize(20) == 40);
static_assert(fixedLayout<LfibExtFecVia, 28>());
static_assert(fixedLayout<LfibVlanVia, 18>());
static_assert(fixedLayout<LfibEvpnVlanAwareVia, 24>());
static_assert(fixedLayout<LfibEvpnVlanFloodVia, 18>());
static_assert(fixedLayout<LfibEvpnVlanAwareFloodVia, 24>());
static_assert(fixedLayout<LfibDot1qTagToVlanComposite, 12>());

// Variable-length records: fixed part plus used elements.
static_assert(std::is_trivially_copyable_v<LfibViaSet> && !Zinc::Serial<LfibViaSet>::fixed);
static_assert(Zinc::Serial<LfibViaSet>::size == 44 + 12 * 128);
// The via-set table keeps them in slabs: a 24-byte slot holding a Shape::Offset, and an entry
// of the smallest slab class that holds the fixed part and the via keys in use.
static_assert(slotSize(sizeof(Shape::Offset)) == 24);
constexpr uint32_t viaSetEntrySize(size_t viaKeys) {
  return Shape::entrySizeOf(Shape::sizeClassFor(44 + 12 * viaKeys));
}
static_assert(viaSetEntrySize(1) == 64 && viaSetEntrySize(2) == 72 && viaSetEntrySize(3) == 88 &&
              viaSetEntrySize(4) == 96 && viaSetEntrySize(16) == 240 &&
              viaSetEntrySize(128) == 1664);
static_assert(std::is_trivially_copyable_v<LfibIpLookupVia> &&
              !Zinc::Serial<LfibIpLookupVia>::fixed);
static_assert(Zinc::Serial<LfibIpLookupVia>::size == 20 + 101);

}  // namespace Mpls::StoredLayouts
