// Index allocators of generated LFIB adjacencies and of segment-routing tunnels.
#pragma once

#include <cstdint>
#include <unordered_set>

#include "lfib/LfibBase.h"
#include "zinc/Collection.h"
#include "zinc/Entity.h"

namespace MplsHelper {

// Segment-routing tunnel indices from one running counter; the first index is 1.
class SrTunnelIdxAllocator : public Zinc::Entity {
  ZINC_ENTITY(SrTunnelIdxAllocator, "MplsHelper::SrTunnelIdxAllocator")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<SrTunnelIdxAllocator> {
   public:
    virtual void onTunnelIdx() {}
  };
  ZINC_NOTIFIEE(SrTunnelIdxAllocator)
  ZINC_ATTRIBUTE(tunnelIdx, TunnelIdx, uint64_t)

 public:
  SrTunnelIdxAllocator() : Zinc::Entity(Zinc::Name("SrTunnelIdxAllocator")) {}
  // Adds d and returns the new value; notifies only when the value changes.
  uint64_t tunnelIdxInc(uint64_t d) {
    tunnelIdxIs(tunnelIdx() + d);
    return tunnelIdx();
  }
  uint64_t getIdx() { return tunnelIdxInc(1); }
  void setIdx(uint64_t v) { tunnelIdxIs(v); }
  bool hasBackupSupport() const { return false; }
};
Zinc::Ptr<SrTunnelIdxAllocator> srTunnelIdxAllocatorFactory();

// Adjacency indices for generated adjacencies: bits 60-63 hold the LFib::Source, bits 0-59 a
// running number per source, so indices of different sources never collide.
//
// A candidate is handed out only when no adjacency collection of the protocol LFIB holds it
// and it is not outstanding: handed out earlier and not yet released. The step between
// candidates is one; the running number skips 0 and wraps after 2^60 - 1. Every source,
// the EVPN source (7) included, is probed the same way. releaseAdjacencyIndex ends an index's
// outstanding state; it becomes free again once the protocol LFIB no longer holds it.
class LfibGenAdjIdxAllocator : public Zinc::Entity {
  ZINC_ENTITY(LfibGenAdjIdxAllocator, "MplsHelper::LfibGenAdjIdxAllocator")

 public:
  static constexpr unsigned sourceShift = 60;
  static constexpr uint64_t numberMask = (uint64_t{1} << sourceShift) - 1;

  class NotifieeConst : public Zinc::NotifieeConstOf<LfibGenAdjIdxAllocator> {
   public:
    virtual void onAdjIndex(const LFib::Source&) {}
  };
  ZINC_NOTIFIEE(LfibGenAdjIdxAllocator)
  ZINC_HASH_COLLECTION(adjIndex, AdjIndex, LFib::Source, uint64_t)

 public:
  explicit LfibGenAdjIdxAllocator(const Zinc::Ptr<Mpls::LfibBase const>& lfib)
      : Zinc::Entity(Zinc::Name("LfibGenAdjIdxAllocator")), lfib_(lfib) {}

  const Zinc::Ptr<Mpls::LfibBase const>& lfib() const { return lfib_; }
  uint64_t getAdjacencyIndex(LFib::Source source);
  void useAdjacencyIndex(LFib::Source source, uint64_t index);
  void resetAdjacencyIndex(LFib::Source source);
  void releaseAdjacencyIndex(LFib::Source source, uint64_t index);
  bool outstanding(uint64_t index) const { return outstanding_.contains(index); }

  static uint64_t withSource(LFib::Source source, uint64_t number) {
    return (uint64_t(uint32_t(source)) << sourceShift) | (number & numberMask);
  }

 private:
  Zinc::Ptr<Mpls::LfibBase const> lfib_;
  std::unordered_set<uint64_t> outstanding_;
};
Zinc::Ptr<LfibGenAdjIdxAllocator> lfibGenAdjIdxAllocatorFactory(
    const Zinc::Ptr<Mpls::LfibBase const>& lfib);

}  // namespace MplsHelper
