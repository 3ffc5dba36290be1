// LfibWriter: writes whole routes (ConsolidatedLfibRoute) into LfibStatus as vias, one via set
// and one route, with keys from one LfibViaIndexAllocator per source.
//
// Each route owns its via set and vias. The writer keeps no copy of what it wrote: every
// decision reads the stored route, via set and vias back, so a restarted writer carries on
// from what shared memory holds. Writes go vias -> via set -> route -> old via set -> old
// vias, each only when it changed, so that a reader never follows a route to a missing via
// set or via.
//
// A write that finds no room in shared memory (Ledger::TableFullException) puts back what it
// had changed, newest first, and throws: the old route stays whole, or there is none, and no
// via or via set it had added stays behind. Every change is announced in its table's change
// queue, so a write first makes room there for all its changes and their undo: a queue
// without room fails it before anything changed, and the undo of a write that found no room
// for a new slot or slab entry cannot fail for want of queue room. A removal of a key that
// nothing refers to any more that still finds none (old vias of another via type) keeps the
// key in a list, and it is tried again before the next write or removal. The list lives in this
// process only: keys still on it when the writer restarts stay in shared memory, referred to
// by nothing (readers see them as entries no route uses).
//
// With the feature toggle "InPlaceMplsAdjacencyUpdate" on, a rewrite keeps the route's via set
// key (same source, via type and via set type) and the keys of vias whose content is
// unchanged; with it off, every rewrite takes fresh keys and then drops all the old ones.
#pragma once

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <span>
#include <unordered_map>
#include <variant>
#include <vector>

#include "lfib/ConsolidatedLfibRoute.h"
#include "lfib/LfibStatus.h"
#include "lfib/LfibViaIndexAllocator.h"
#include "zinc/Ptr.h"

namespace Mpls {

class LfibWriter : public Zinc::PtrInterface {
 public:
  using Ptr = Zinc::Ptr<LfibWriter>;
  static constexpr uint32_t maxVias = 128;

  explicit LfibWriter(const Zinc::Ptr<LfibStatus>& lfib);

  const Zinc::Ptr<LfibStatus>& lfib() const { return lfib_; }
  bool inPlaceAdjacencyUpdateSupported() const { return inPlaceAdjacencyUpdateSupported_; }
  void inPlaceAdjacencyUpdateSupportedIs(bool v) { inPlaceAdjacencyUpdateSupported_ = v; }

  // Reads the feature toggle; run by the constructor.
  void handleInitialized();

  Zinc::Ptr<LfibViaIndexAllocator> indexAllocator(LFib::Source source);
  Zinc::Ptr<LfibViaIndexAllocator> indexAllocatorInternal(LFib::Source source) const;
  void indexAllocatorInternalIs(LFib::Source source, const Zinc::Ptr<LfibViaIndexAllocator>& a);

  void lfibRouteIs(const ConsolidatedLfibRoute& route);
  // Writes the routes in order, each exactly as lfibRouteIs would. Knowing the next routes'
  // keys, it fetches their chains a few routes ahead: a bulk load is bound by memory
  // latency, and this overlaps the look-up of each route with the writes of the ones before.
  void lfibRoutesIs(std::span<const ConsolidatedLfibRoute> routes);
  void lfibRouteDel(const RouteKey& key);
  void lfibRouteDelAll();
  void lfibViaDel(const LfibViaKey& key);

  // Via sets and vias that no route refers to any more, whose removal found no room yet.
  size_t pendingRemovals() const { return unreferenced_.size(); }

 private:
  struct OldRoute;
  struct Undo;
  class ViaSetLease;
  using UnreferencedKey = std::variant<LfibViaSetKey, LfibViaKey>;
  static constexpr uint32_t kPrefetchedVias = 8;
  // How many routes ahead lfibRoutesIs fetches a route's bucket head, and its first slot.
  static constexpr size_t kRouteBucketAhead = 4, kRouteChainAhead = 2;
  static constexpr size_t kRouteHashRing = 8;
  static_assert(kRouteHashRing > kRouteBucketAhead);
  // The hashes of the keys whose buckets prefetchFor started for the routes before: the
  // later stages of a key take them instead of hashing it again. A route that breaks the
  // pattern leaves hashes of keys nobody takes: a few fetches are wasted, nothing else.
  struct PrefetchPipeline {
    uint32_t vias = 0;  // via hashes of the last route
    std::array<uint32_t, kPrefetchedVias> viaHashes{};
    uint32_t setHashes = 0;  // via set hashes held: [0] of the last route, [1] of the one before
    std::array<uint32_t, 2> setHash{};
  };
  void prefetchFor(const ConsolidatedLfibRoute& route, LfibViaIndexAllocator& allocator);
  // lfibRouteIs without fetching the route's own bucket first.
  void writeRoute(const ConsolidatedLfibRoute& route);
  // indexAllocator(source), remembered for the next route of the same source.
  LfibViaIndexAllocator& allocatorFor(LFib::Source source);
  OldRoute readOldRoute(const RouteKey& key) const;
  // Writes the route's vias (the writeVias of its via type); the keys it added go to `added`.
  void writeViasOfType(const ConsolidatedLfibRoute& route, OldRoute& old, LfibViaSet& viaSet,
                       LfibViaIndexAllocator& allocator, std::vector<LfibViaKey>& added);
  template <class Via>
  std::map<Via, LfibViaKey> oldViasByContent(const ConsolidatedLfibRoute& route,
                                             const OldRoute& old);
  template <class Via>
  void writeVias(const ConsolidatedLfibRoute& route, OldRoute& old, LfibViaSet& viaSet,
                 LfibViaIndexAllocator& allocator, std::vector<LfibViaKey>& added);
  // Puts back what a route's write had changed when one of its steps found no room.
  void undo(const Undo& undo, const OldRoute& old, const LfibViaSetKey& viaSetKey);
  // Removes the keys in unreferenced_, in order (a via set before its vias); what finds no
  // room stays there for the next try.
  void removeUnreferenced();
  LfibViaSetKey chooseViaSetKey(const ConsolidatedLfibRoute& route, const OldRoute& old,
                                LfibViaIndexAllocator& allocator);

  Zinc::Ptr<LfibStatus> lfib_;
  std::unordered_map<int32_t, Zinc::Ptr<LfibViaIndexAllocator>> indexAllocatorInternal_;
  bool inPlaceAdjacencyUpdateSupported_ = false;
  Zinc::Ptr<LfibViaIndexAllocator> lastAllocator_;
  LFib::Source lastSource_ = LFib::sourceUnknown_;
  std::vector<std::unique_ptr<LfibViaSet>> spareViaSets_;  // see ViaSetLease
  PrefetchPipeline prefetched_;
  std::deque<UnreferencedKey> unreferenced_;
  std::vector<LfibViaKey> addedVias_;  // by the route being written: absent before
};

Zinc::Ptr<LfibWriter> lfibWriterFactory(const Zinc::Ptr<LfibStatus>& lfib);

}  // namespace Mpls
