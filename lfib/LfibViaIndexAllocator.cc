#include "lfib/LfibViaIndexAllocator.h"

#include "zinc/Exception.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("LfibViaIndexAllocator");

namespace Mpls {

namespace {

// Looks `key` up in `table`; a corruption met on the way has already been reported to the
// table (its corruption count rose) and counts as "try the next index".
template <class Table, class Key, class Value>
int probeIn(Table& table, const Key& key, Value& scratch) {
  const uint64_t corruptions = table.corruptions();
  const bool present = table.lookup(key, scratch);
  if (table.corruptions() != corruptions) return 2;
  return present ? 1 : 0;
}

}  // namespace

LfibViaIndexAllocator::LfibViaIndexAllocator(LFib::Source source,
                                             const Zinc::Ptr<LfibStatus>& lfibStatus)
    : Zinc::Entity(Zinc::Name("LfibViaIndexAllocator-" + std::to_string(int(source)))),
      source_(source),
      lfibStatus_(lfibStatus) {}

uint32_t LfibViaIndexAllocator::viaKeyIndexInc(LfibViaType viaType, uint32_t d) {
  uint32_t value = viaKeyIndex(viaType) + d;
  viaKeyIndexIs(viaType, value);
  return value;
}

uint32_t LfibViaIndexAllocator::viaSetKeyIndexInc(const ViaSetKeyIndexDomain& domain, uint32_t d) {
  uint32_t value = viaSetKeyIndex(domain) + d;
  viaSetKeyIndexIs(domain, value);
  return value;
}

LfibViaIndexAllocator::Probe LfibViaIndexAllocator::probeVia(const LfibViaKey& key) {
  LfibStatus& s = *lfibStatus_;
  int found = 0;
  auto probe = [&](auto& table, auto scratch) { found = probeIn(table, key, scratch); };
  switch (key.viaType()) {
    case viaTypeMplsIp_:
      probe(s.mplsViaLedger(), LfibMplsVia());
      break;
    case viaTypeMplsPseudowire_:
      probe(s.pwViaLedger(), LfibPwVia());
      break;
    case viaTypeIpLookup_:
      probe(s.ipLookupViaLedger(), LfibIpLookupVia());
      break;
    case viaTypeVlan_:
      probe(s.vlanViaLedger(), LfibVlanVia());
      break;
    case viaTypeEvpnVlanAware_:
      probe(s.evpnVlanAwareViaLedger(), LfibEvpnVlanAwareVia());
      break;
    case viaTypeEvpnEthernetSegment_:
      probe(s.evpnEthernetSegmentFilterViaLedger(), LfibEvpnEthernetSegmentFilterVia());
      break;
    case viaTypeEvpnVlanFlood_:
      probe(s.evpnVlanFloodViaLedger(), LfibEvpnVlanFloodVia());
      break;
    case viaTypeEvpnVlanAwareFlood_:
      probe(s.evpnVlanAwareFloodViaLedger(), LfibEvpnVlanAwareFloodVia());
      break;
    case viaTypeExternalFec_:
      probe(s.extFecViaLedger(), LfibExtFecVia());
      break;
    default:
      ZINC_ASSERT(false, "Unknown via type");
  }
  return static_cast<Probe>(found);
}

LfibViaIndexAllocator::Probe LfibViaIndexAllocator::probeViaSet(const LfibViaSetKey& key) {
  return static_cast<Probe>(probeIn(lfibStatus_->viaSetLedger(), key, *viaSetScratch_));
}

// Both probes step their counter by one per index tried (viaKeyIndexInc(type, 1)), reading it
// once up front rather than once per step.
LfibViaKey LfibViaIndexAllocator::getViaKey(LfibViaType viaType) {
  const uint32_t start = viaKeyIndex(viaType);
  for (uint32_t index = start;;) {
    viaKeyIndexIs(viaType, ++index);
    LfibViaKey key(source_, viaType, index);
    if (viaType > viaTypeMax_) return key;  // beyond the known via types: not probed
    if (key.index() != 0) {                 // 0 is never handed out
      Probe probe = probeVia(key);
      if (probe == Probe::absent) return key;
      if (probe == Probe::corrupt) ZTRACE(0, "getViaKey: corrupt table, probing on");
    }
    ZINC_ASSERT(key.index() != start, "No via keys left");
  }
}

LfibViaSetKey LfibViaIndexAllocator::getViaSetKey(LfibViaType viaType, LfibViaSetType viaSetType) {
  const ViaSetKeyIndexDomain domain(viaType, viaSetType);
  const uint32_t start = viaSetKeyIndex(domain);
  for (uint32_t index = start;;) {
    viaSetKeyIndexIs(domain, ++index);
    LfibViaSetKey key(source_, index, viaType, viaSetType);
    if (key.index() != 0) {  // 0 is never handed out
      Probe probe = probeViaSet(key);
      if (probe == Probe::absent) return key;
      if (probe == Probe::corrupt) ZTRACE(0, "getViaSetKey: corrupt table, probing on");
    }
    ZINC_ASSERT(key.index() != start, "No via set keys left");
  }
}

Zinc::Ptr<LfibViaIndexAllocator> lfibViaIndexAllocatorFactory(
    LFib::Source source, const Zinc::Ptr<LfibStatus>& lfibStatus) {
  return Zinc::makePtr<LfibViaIndexAllocator>(source, lfibStatus);
}

}  // namespace Mpls
