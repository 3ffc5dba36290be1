// LfibViaIndexAllocator: fresh via and via set keys for one source of the published LFIB.
//
// It keeps the last index handed out per via type and per (via type, via set type) and probes
// LfibStatus for the next index whose entry does not exist. It frees nothing itself: a key is
// free exactly when the status holds no entry for it. Index 0 is never handed out; after the
// 32-bit counter wraps, low indices freed in the meantime are used again.
#pragma once

#include <cstdint>
#include <memory>

#include "lfib/LfibStatus.h"
#include "zinc/Collection.h"
#include "zinc/Entity.h"

namespace Mpls {

class LfibViaIndexAllocator : public Zinc::Entity {
  ZINC_ENTITY(LfibViaIndexAllocator, "Mpls::LfibViaIndexAllocator")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<LfibViaIndexAllocator> {
   public:
    virtual void onViaKeyIndex(const LfibViaType&) {}
    virtual void onViaSetKeyIndex(const ViaSetKeyIndexDomain&) {}
  };
  ZINC_NOTIFIEE(LfibViaIndexAllocator)
  ZINC_HASH_COLLECTION(viaKeyIndex, ViaKeyIndex, LfibViaType, uint32_t)
  ZINC_HASH_COLLECTION(viaSetKeyIndex, ViaSetKeyIndex, ViaSetKeyIndexDomain, uint32_t)

 public:
  LfibViaIndexAllocator(LFib::Source source, const Zinc::Ptr<LfibStatus>& lfibStatus);

  LFib::Source source() const { return source_; }
  const Zinc::Ptr<LfibStatus>& lfibStatus() const { return lfibStatus_; }

  // Creates an absent counter at 0, adds `d` (wrapping) and returns the new value.
  uint32_t viaKeyIndexInc(LfibViaType viaType, uint32_t d);
  uint32_t viaSetKeyIndexInc(const ViaSetKeyIndexDomain& domain, uint32_t d);

  LfibViaKey getViaKey(LfibViaType viaType);
  LfibViaSetKey getViaSetKey(LfibViaType viaType, LfibViaSetType viaSetType);

 private:
  // Whether the status holds the via; a corrupt table is reported and the probe goes on.
  enum class Probe { absent, present, corrupt };
  Probe probeVia(const LfibViaKey& key);
  Probe probeViaSet(const LfibViaSetKey& key);

  LFib::Source source_;
  Zinc::Ptr<LfibStatus> lfibStatus_;
  // Where a probe that finds a via set reads it to: made once, a via set is 1.5 KB.
  std::unique_ptr<LfibViaSet> viaSetScratch_ = std::make_unique<LfibViaSet>();
};

Zinc::Ptr<LfibViaIndexAllocator> lfibViaIndexAllocatorFactory(
    LFib::Source source, const Zinc::Ptr<LfibStatus>& lfibStatus);

}  // namespace Mpls
