// LfibBase: what every protocol LFIB holds besides its routes: the adjacencies that routes
// point at, one collection per adjacency type, each keyed by a 64-bit adjacency index.
//
//   lfibAdjacency          MPLS-IP adjacencies (LfibAdjacency entities with their vias)
//   lfibPwAdjacency        pseudowire adjacencies
//   lfibExtFecAdjacency    external-FEC adjacencies
//   lfibMulticastAdjacency multicast adjacencies
//
// A protocol LFIB derives from it and adds its routes; its NotifieeConst derives from
// LfibBase::NotifieeConst. Generated adjacency indices carry their LFib::Source in bits 60-63
// (see MplsHelper::LfibGenAdjIdxAllocator).
#pragma once

#include <cstdint>

#include "lfib/LfibTypes.h"
#include "zinc/Collection.h"
#include "zinc/Entity.h"

namespace Mpls {

// One next hop of an MPLS-IP adjacency. A label of Wire::MplsLabel::null means "no label".
ZINC_VALUE(LfibAdjacencyVia, "Mpls::LfibAdjacencyVia", (Wire::IpGenAddr, nextHop),
           (Wire::IntfId, intf), (Wire::MplsLabel, label), (Wire::MplsLabelAction, labelAction),
           (PayloadType, payloadType), (uint32_t, weight));

ZINC_VALUE(LfibPwAdjacency, "Mpls::LfibPwAdjacency", (uint64_t, index), (Wire::IntfId, pwIntfId),
           (bool, controlWordPresent), (Pseudowire::PseudowireType, pwType));

ZINC_VALUE(LfibExtFecAdjacency, "Mpls::LfibExtFecAdjacency", (uint64_t, index),
           (Ledger::Fib::FecId, fecId), (Wire::MplsLabelAction, labelAction),
           (PayloadType, payloadType));

ZINC_VALUE(LfibMulticastAdjacency, "Mpls::LfibMulticastAdjacency", (uint64_t, index),
           (Wire::IntfId, intf));

// An MPLS-IP adjacency: its vias by position, walked in key order.
class LfibAdjacency : public Zinc::Entity {
  ZINC_ENTITY(LfibAdjacency, "Mpls::LfibAdjacency")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<LfibAdjacency> {
   public:
    virtual void onVia(const uint32_t&) {}
  };
  ZINC_NOTIFIEE(LfibAdjacency)
  ZINC_ORDERED_COLLECTION(via, Via, uint32_t, LfibAdjacencyVia)

 public:
  explicit LfibAdjacency(uint64_t index)
      : Zinc::Entity(Zinc::Name(std::to_string(index))), index_(index) {}
  uint64_t index() const { return index_; }

 private:
  uint64_t index_;
};

class LfibBase : public Zinc::Entity {
  ZINC_ENTITY(LfibBase, "Mpls::LfibBase")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<LfibBase> {
   public:
    virtual void onLfibAdjacency(const uint64_t&) {}
    virtual void onLfibPwAdjacency(const uint64_t&) {}
    virtual void onLfibExtFecAdjacency(const uint64_t&) {}
    virtual void onLfibMulticastAdjacency(const uint64_t&) {}
  };
  ZINC_NOTIFIEE(LfibBase)
  ZINC_HASH_COLLECTION(lfibAdjacency, LfibAdjacency, uint64_t, Zinc::Ptr<LfibAdjacency>)
  ZINC_HASH_COLLECTION(lfibPwAdjacency, LfibPwAdjacency, uint64_t, LfibPwAdjacency)
  ZINC_HASH_COLLECTION(lfibExtFecAdjacency, LfibExtFecAdjacency, uint64_t, LfibExtFecAdjacency)
  ZINC_HASH_COLLECTION(lfibMulticastAdjacency, LfibMulticastAdjacency, uint64_t,
                       LfibMulticastAdjacency)

 public:
  explicit LfibBase(const Zinc::Name& name) : Zinc::Entity(name) {}
  // Whether any adjacency collection holds the index.
  bool adjacencyIndexUsed(uint64_t index) const {
    return lfibAdjacencyHas(index) || lfibPwAdjacencyHas(index) || lfibExtFecAdjacencyHas(index) ||
           lfibMulticastAdjacencyHas(index);
  }
};

inline Zinc::Ptr<LfibBase> lfibBaseFactory(const Zinc::Name& name) {
  return Zinc::makePtr<LfibBase>(name);
}

}  // namespace Mpls
