#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <variant>

#include "ledger/Exceptions.h"
#include "lfib/LfibWriter.h"
#include "platform/toggle/FeatureToggle.h"
#include "zinc/Exception.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("MplsLfibWriter");

namespace Mpls {

// What the stored route looked like before this write.
struct LfibWriter::OldRoute {
  std::optional<LfibRoute> route;
  std::unique_ptr<LfibViaSet> viaSet;  // not an optional: that would zero 1.5 KB per route
  std::vector<LfibViaKey> viaKeys;     // not (yet) reused by the new route

  bool takeViaKey(const LfibViaKey& key) {
    for (auto it = viaKeys.begin(); it != viaKeys.end(); ++it) {
      if (*it == key) {
        viaKeys.erase(it);
        return true;
      }
    }
    return false;
  }
};

// A via set on loan from the writer's spares for the length of one route's write. Building a
// route's via set from a blank one copied 1.5 KB every time; a returned one is emptied by
// zeroing only the keys it held. Those and the via set key are all that writeRoute sets, so
// a returned via set is blank again once its keys are cleared.
class LfibWriter::ViaSetLease {
 public:
  explicit ViaSetLease(LfibWriter& writer) : writer_(writer) {
    if (writer.spareViaSets_.empty()) {
      viaSet_ = std::make_unique<LfibViaSet>();
    } else {
      viaSet_ = std::move(writer.spareViaSets_.back());
      writer.spareViaSets_.pop_back();
    }
  }
  ViaSetLease(const ViaSetLease&) = delete;
  ViaSetLease& operator=(const ViaSetLease&) = delete;
  ~ViaSetLease() {
    viaSet_->viaKeyDelAll();
    viaSet_->keyIs(LfibViaSetKey());
    writer_.spareViaSets_.push_back(std::move(viaSet_));
  }
  LfibViaSet& operator*() { return *viaSet_; }

 private:
  LfibWriter& writer_;
  std::unique_ptr<LfibViaSet> viaSet_;
};

LfibWriter::LfibWriter(const Zinc::Ptr<LfibStatus>& lfib) : lfib_(lfib) { handleInitialized(); }

void LfibWriter::handleInitialized() {
  ZTRACE(8, "void Mpls::LfibWriter::handleInitialized()");
  inPlaceAdjacencyUpdateSupported_ = Platform::FeatureToggle::enabled("InPlaceMplsAdjacencyUpdate");
}

Zinc::Ptr<LfibViaIndexAllocator> LfibWriter::indexAllocatorInternal(LFib::Source source) const {
  auto it = indexAllocatorInternal_.find(source);
  return it == indexAllocatorInternal_.end() ? Zinc::Ptr<LfibViaIndexAllocator>() : it->second;
}

void LfibWriter::indexAllocatorInternalIs(LFib::Source source,
                                          const Zinc::Ptr<LfibViaIndexAllocator>& a) {
  indexAllocatorInternal_[source] = a;
  lastAllocator_ = nullptr;
}

Zinc::Ptr<LfibViaIndexAllocator> LfibWriter::indexAllocator(LFib::Source source) {
  auto allocator = indexAllocatorInternal(source);
  if (!allocator) {
    allocator = lfibViaIndexAllocatorFactory(source, lfib_);
    indexAllocatorInternalIs(source, allocator);
  }
  return allocator;
}

LfibViaSetKey LfibWriter::chooseViaSetKey(const ConsolidatedLfibRoute& route, const OldRoute& old,
                                          LfibViaIndexAllocator& allocator) {
  if (inPlaceAdjacencyUpdateSupported_ && old.route) {
    const LfibViaSetKey& k = old.route->viaSetKey();
    if (k.source() == route.source() && k.viaType() == route.viaType() &&
        k.viaSetType() == route.viaSetType()) {
      return k;
    }
  }
  return allocator.getViaSetKey(route.viaType(), route.viaSetType());
}

// The old route's vias of record type Via, by content (the record with its key unset), for
// the new vias to take their keys over when the writer updates adjacencies in place.
template <class Via>
std::map<Via, LfibViaKey> LfibWriter::oldViasByContent(const ConsolidatedLfibRoute& route,
                                                       const OldRoute& old) {
  std::map<Via, LfibViaKey> byContent;
  if (!inPlaceAdjacencyUpdateSupported_) return byContent;
  for (const LfibViaKey& k : old.viaKeys) {
    Via stored;
    if (k.viaType() != route.viaType() || k.source() != route.source() ||
        !lfib_->elementLookup(k, stored)) {
      continue;
    }
    stored.keyIs(LfibViaKey());
    byContent.emplace(stored, k);
  }
  return byContent;
}

// Writes the route's vias of record type Via and places their keys in the new via set.
template <class Via>
void LfibWriter::writeVias(const ConsolidatedLfibRoute& route, OldRoute& old, LfibViaSet& viaSet,
                           LfibViaIndexAllocator& allocator, std::vector<LfibViaKey>& added) {
  const std::map<Via, LfibViaKey> oldByContent = oldViasByContent<Via>(route, old);
  // Queue room for each via's write and its undo, and for the removal of the old vias.
  const auto& vias = route.vias(static_cast<const Via*>(nullptr));
  const bool oldOfThisType = old.route && old.route->viaSetKey().viaType() == route.viaType();
  lfib_->elementReserve(static_cast<const Via*>(nullptr),
                        2 * std::min<uint32_t>(uint32_t(vias.size()), maxVias) +
                            (oldOfThisType ? uint32_t(old.viaKeys.size()) : 0));
  uint32_t position = 0;
  for (Via via : vias) {
    auto reuse = oldByContent.empty() ? oldByContent.end() : oldByContent.find(via);
    LfibViaKey key;
    const bool reused = reuse != oldByContent.end() && old.takeViaKey(reuse->second);
    if (reused) {
      key = reuse->second;
    } else {
      key = allocator.getViaKey(route.viaType());
    }
    via.keyIs(key);  // the weight travels in the record (LfibMplsVia::weight)
    // A fresh key was just probed absent; a reused one is compared with what is stored.
    Via stored;
    const bool present = reused && lfib_->elementLookup(key, stored);
    if (!present || !(stored == via)) {
      lfib_->elementIs(via);
      if (!present) added.push_back(key);
    }
    viaSet.viaKeyIs(LfibViaIndexRange(position), key);
    if (position == maxVias - 1) {
      ZTRACE(0, "Reached via index limit (" << position << "), ignoring extra vias");
      break;
    }
    ++position;
  }
}

// A new route takes fresh via keys and a fresh via set key, which the allocator hands out in
// order, so the chains of the keys that the next routes will take are fetched ahead, in
// stages a route apart: the bucket head, then (a route later, when it has arrived) the
// chain's first slot, and for via sets then the slab payload that slot refers to (its key).
// Their walks then rarely wait for memory. This assumes that the next routes look like this
// one; when they do not, a few fetches are wasted. Each predicted key is hashed once, at its
// bucket stage; the later stages take the hashes that the routes before left in prefetched_.
void LfibWriter::prefetchFor(const ConsolidatedLfibRoute& route, LfibViaIndexAllocator& allocator) {
  if (route.viaType() != viaTypeMplsIp_) {
    prefetched_ = PrefetchPipeline();
    return;
  }
  using Ledger::PrefetchStage;
  const LFib::Source source = route.source();
  PrefetchPipeline& p = prefetched_;
  auto& viaTable = lfib_->mplsViaLedger();
  for (uint32_t i = 0; i < p.vias; ++i) {
    viaTable.prefetchHashed(p.viaHashes[i], PrefetchStage::firstSlot);
  }
  // The keys of the route after next: the next route takes `vias` keys after this one's.
  p.vias = std::min<uint32_t>(uint32_t(route.mplsVias().size()), kPrefetchedVias);
  const uint32_t afterNext = allocator.viaKeyIndex(viaTypeMplsIp_) + 2 * p.vias + 1;
  for (uint32_t i = 0; i < p.vias; ++i) {
    p.viaHashes[i] = viaTable.keyHash(LfibViaKey(source, viaTypeMplsIp_, afterNext + i));
    viaTable.prefetchHashed(p.viaHashes[i]);
  }
  auto& viaSetTable = lfib_->viaSetLedger();
  if (p.setHashes > 1) viaSetTable.prefetchHashed(p.setHash[1], PrefetchStage::firstStored);
  if (p.setHashes > 0) viaSetTable.prefetchHashed(p.setHash[0], PrefetchStage::firstSlot);
  // The via set key of the third route from here.
  const LfibViaSetType setType = route.viaSetType();
  const uint32_t third =
      allocator.viaSetKeyIndex(ViaSetKeyIndexDomain(viaTypeMplsIp_, setType)) + 4;
  p.setHash[1] = p.setHash[0];
  p.setHash[0] = viaSetTable.keyHash(LfibViaSetKey(source, third, viaTypeMplsIp_, setType));
  p.setHashes = std::min(p.setHashes + 1, 2u);
  viaSetTable.prefetchHashed(p.setHash[0]);
}

LfibViaIndexAllocator& LfibWriter::allocatorFor(LFib::Source source) {
  if (!lastAllocator_ || lastSource_ != source) {
    lastAllocator_ = indexAllocator(source);
    lastSource_ = source;
  }
  return *lastAllocator_;
}

void LfibWriter::lfibRouteIs(const ConsolidatedLfibRoute& route) {
  // The route's own key is not known ahead: its bucket is fetched now, while the vias go in.
  lfib_->lfibRouteLedger().prefetch(route.key());
  writeRoute(route);
}

// What one route's write has changed so far, besides the vias it added (addedVias_).
struct LfibWriter::Undo {
  enum class ViaSet { untouched, added, rewritten } viaSet = ViaSet::untouched;
};

LfibWriter::OldRoute LfibWriter::readOldRoute(const RouteKey& key) const {
  OldRoute old;
  LfibRoute stored;
  if (!lfib_->elementLookup(key, stored)) return old;
  ZTRACE(7, key << ": found old lfib route");
  old.route = stored;
  auto oldViaSet = std::make_unique<LfibViaSet>();
  if (!lfib_->elementLookup(stored.viaSetKey(), *oldViaSet)) oldViaSet.reset();
  ZINC_ASSERT(!!oldViaSet, "the via set of an lfib route is missing");
  for (uint32_t i = 0; i < oldViaSet->viaKeys(); ++i) {
    old.viaKeys.push_back(oldViaSet->viaKey(LfibViaIndexRange(i)));
  }
  old.viaSet = std::move(oldViaSet);
  return old;
}

void LfibWriter::writeViasOfType(const ConsolidatedLfibRoute& route, OldRoute& old,
                                 LfibViaSet& viaSet, LfibViaIndexAllocator& allocator,
                                 std::vector<LfibViaKey>& added) {
  switch (route.viaType()) {
    case viaTypeMplsIp_:
      return writeVias<LfibMplsVia>(route, old, viaSet, allocator, added);
    case viaTypeMplsPseudowire_:
      return writeVias<LfibPwVia>(route, old, viaSet, allocator, added);
    case viaTypeIpLookup_:
      return writeVias<LfibIpLookupVia>(route, old, viaSet, allocator, added);
    case viaTypeExternalFec_:
      return writeVias<LfibExtFecVia>(route, old, viaSet, allocator, added);
    default:
      return;  // VLAN and EVPN vias are written by their producers
  }
}

void LfibWriter::writeRoute(const ConsolidatedLfibRoute& route) {
  ZTRACE(8, "void Mpls::LfibWriter::lfibRouteIs(const Mpls::ConsolidatedLfibRoute&)");
  ZINC_ASSERT(route.viaType() != viaTypeMplsUnknown_ && route.viaType() != viaTypeMax_,
              "invalid viaType");
  if (!unreferenced_.empty()) removeUnreferenced();
  LfibViaIndexAllocator& allocator = allocatorFor(route.source());
  prefetchFor(route, allocator);
  OldRoute old = readOldRoute(route.key());
  const LfibViaSetKey viaSetKey = chooseViaSetKey(route, old, allocator);
  ViaSetLease lease(*this);
  LfibViaSet& viaSet = *lease;
  viaSet.keyIs(viaSetKey);
  // The stored via set under the chosen key: the old route's when the key is kept; none when
  // the key is new (the allocator has just probed it absent, and only via tables were
  // written since).
  const bool sameViaSetKey = old.route && old.route->viaSetKey() == viaSetKey;
  Undo done;
  addedVias_.clear();
  try {
    // Queue room first for every change below and its undo: a want of it fails the write
    // here, before anything changed. The via set: its write, the undo of that, the old via
    // set's removal; the route: its write.
    lfib_->viaSetLedger().reserveChanges(3);
    lfib_->lfibRouteLedger().reserveChanges(1);
    writeViasOfType(route, old, viaSet, allocator, addedVias_);
    if (!sameViaSetKey || !old.viaSet || !(*old.viaSet == viaSet)) {
      lfib_->viaSetIs(viaSet);
      done.viaSet = sameViaSetKey ? Undo::ViaSet::rewritten : Undo::ViaSet::added;
    }
    LfibRoute newRoute(route.key(), viaSetKey, route.source(), route.fec(), route.metric());
    if (!old.route || !(*old.route == newRoute)) {
      ZTRACE(1, "lfibRouteIs " << newRoute.ledgerString());
      lfib_->lfibRouteIs(newRoute);
    }
  } catch (const Ledger::TableFullException& e) {
    ZTRACE(0, route.key() << ": no room to write the route, putting back what it changed: "
                          << e.what());
    undo(done, old, viaSetKey);
    throw;
  }
  if (old.route && !sameViaSetKey) unreferenced_.emplace_back(old.route->viaSetKey());
  unreferenced_.insert(unreferenced_.end(), old.viaKeys.begin(), old.viaKeys.end());
  if (!unreferenced_.empty()) removeUnreferenced();
}

// Newest first: the via set as it was (or none), then the vias this write added. When the old
// via set cannot be put back, the route refers to the new one and its vias, which stay; the
// old vias that it no longer holds go instead.
void LfibWriter::undo(const Undo& done, const OldRoute& old, const LfibViaSetKey& viaSetKey) {
  if (done.viaSet == Undo::ViaSet::rewritten) {
    try {
      lfib_->viaSetIs(*old.viaSet);
    } catch (const Ledger::TableFullException& e) {
      ZTRACE(0,
             viaSetKey << ": no room to put the via set back, keeping the new one: " << e.what());
      unreferenced_.insert(unreferenced_.end(), old.viaKeys.begin(), old.viaKeys.end());
      return removeUnreferenced();
    }
  }
  if (done.viaSet == Undo::ViaSet::added) unreferenced_.emplace_back(viaSetKey);
  unreferenced_.insert(unreferenced_.end(), addedVias_.begin(), addedVias_.end());
  removeUnreferenced();
}

void LfibWriter::removeUnreferenced() {
  try {
    for (; !unreferenced_.empty(); unreferenced_.pop_front()) {
      if (auto* set = std::get_if<LfibViaSetKey>(&unreferenced_.front())) {
        lfib_->viaSetDel(*set);
      } else {
        lfibViaDel(std::get<LfibViaKey>(unreferenced_.front()));
      }
    }
  } catch (const Ledger::TableFullException& e) {
    ZTRACE(0, "no room to remove " << unreferenced_.size()
                                   << " unreferenced via sets and vias yet: " << e.what());
  }
}

void LfibWriter::lfibRoutesIs(std::span<const ConsolidatedLfibRoute> routes) {
  using Ledger::PrefetchStage;
  auto& table = lfib_->lfibRouteLedger();
  const size_t n = routes.size();
  // Each route's hash, taken at its bucket stage and used again at its chain stage.
  std::array<uint32_t, kRouteHashRing> hashes;
  auto startBucket = [&](size_t i) {
    hashes[i % kRouteHashRing] = table.keyHash(routes[i].key());
    table.prefetchHashed(hashes[i % kRouteHashRing]);
  };
  for (size_t i = 0; i < std::min(n, kRouteBucketAhead); ++i) startBucket(i);
  for (size_t i = 0; i < n; ++i) {
    if (i + kRouteBucketAhead < n) startBucket(i + kRouteBucketAhead);
    if (i + kRouteChainAhead < n) {
      table.prefetchHashed(hashes[(i + kRouteChainAhead) % kRouteHashRing],
                           PrefetchStage::firstSlot);
    }
    writeRoute(routes[i]);
  }
}

void LfibWriter::lfibRouteDel(const RouteKey& key) {
  ZTRACE(1, "lfibRouteDel"
                << " routeKey:" << key);
  if (!unreferenced_.empty()) removeUnreferenced();
  LfibRoute route;
  if (!lfib_->elementLookup(key, route)) return;
  lfib_->lfibRouteDel(key);
  LfibViaSet viaSet;
  if (!lfib_->elementLookup(route.viaSetKey(), viaSet)) return;
  unreferenced_.emplace_back(route.viaSetKey());
  for (uint32_t i = 0; i < viaSet.viaKeys() && i < maxVias; ++i) {
    unreferenced_.emplace_back(viaSet.viaKey(LfibViaIndexRange(i)));
  }
  removeUnreferenced();
}

void LfibWriter::lfibRouteDelAll() {
  ZTRACE(8, "void Mpls::LfibWriter::lfibRouteDelAll()");
  std::vector<RouteKey> keys;
  lfib_->lfibRouteForEach([&](const LfibRoute& r) { keys.push_back(r.key()); });
  for (const RouteKey& key : keys) lfibRouteDel(key);
}

void LfibWriter::lfibViaDel(const LfibViaKey& key) {
  LfibStatus& s = *lfib_;
  switch (key.viaType()) {
    case viaTypeMplsIp_:
      s.mplsViaDel(key);
      break;
    case viaTypeMplsPseudowire_:
      s.pwViaDel(key);
      break;
    case viaTypeIpLookup_:
      s.ipLookupViaDel(key);
      break;
    case viaTypeVlan_:
      s.vlanViaDel(key);
      break;
    case viaTypeEvpnVlanAware_:
      s.evpnVlanAwareViaDel(key);
      break;
    case viaTypeEvpnEthernetSegment_:
      s.evpnEthernetSegmentFilterViaDel(key);
      break;
    case viaTypeEvpnVlanFlood_:
      s.evpnVlanFloodViaDel(key);
      break;
    case viaTypeEvpnVlanAwareFlood_:
      s.evpnVlanAwareFloodViaDel(key);
      break;
    case viaTypeExternalFec_:
      s.extFecViaDel(key);
      break;
    default:
      ZINC_ASSERT(static_cast<int32_t>(key.viaType()) != 9, "viaType not yet supported");
      ZINC_ASSERT(false, "invalid viaType");
  }
}

Zinc::Ptr<LfibWriter> lfibWriterFactory(const Zinc::Ptr<LfibStatus>& lfib) {
  return Zinc::Ptr<LfibWriter>(new LfibWriter(lfib));
}

}  // namespace Mpls
