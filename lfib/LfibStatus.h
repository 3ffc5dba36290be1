// The published LFIB (LfibStatus), the hardware's report on it (LfibHwStatus) and the 802.1Q
// tag-to-VLAN tables that EVPN VLAN-aware vias refer to (LfibDot1qTagToVlan).
//
// LfibStatus keeps its routes, via sets and vias in shared-memory tables, one per collection,
// named after the collection. ledgerMountIs(mode, root) mounts them all under
//   <root>/lfib/<entity name>/<collection>/
// (<root>: the argument, else $LEDGER_ROOT, else /dev/shm/ledger); LfibHwStatus mounts under
//   <root>/lfibHw/<entity name>/<collection>/
// The via sets are one table whose values live in slabs (slab.<c> files beside its slots; see
// lfib/LedgerCollection.h). Before mounting, reads find nothing and writes are dropped with a
// "no man's land" trace.
//
// Every change is counted, written, validated against the LFIB's invariants (after the write:
// a failed rule raises Zinc::InternalException with an "MplsLfib:" assertion text) and then
// notified to every bound notifiee with the key.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "ledger/ZincLedgerMap.h"
#include "lfib/LedgerCollection.h"
#include "lfib/LfibTypes.h"
#include "zinc/Collection.h"
#include "zinc/Entity.h"

namespace Mpls {

// One tag-to-VLAN table: 802.1Q tag to local VLAN, named by its key.
class LfibDot1qTagToVlan : public Zinc::Entity {
  ZINC_ENTITY(LfibDot1qTagToVlan, "Mpls::LfibDot1qTagToVlan")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<LfibDot1qTagToVlan> {
   public:
    virtual void onDot1qTagToVlanId(const Bridging::VlanId&) {}
  };
  ZINC_NOTIFIEE(LfibDot1qTagToVlan)
  ZINC_ORDERED_COLLECTION(dot1qTagToVlanId, Dot1qTagToVlanId, Bridging::VlanId,
                          Bridging::VlanIdOrNone)

 public:
  explicit LfibDot1qTagToVlan(const LfibDot1qTagToVlanKey& key);
  const LfibDot1qTagToVlanKey& key() const { return key_; }
  // "{tag: vlan, ...}" in ascending tag order.
  std::string stringValue() const;

 private:
  LfibDot1qTagToVlanKey key_;
};
Zinc::Ptr<LfibDot1qTagToVlan> lfibDot1qTagToVlanFactory(const LfibDot1qTagToVlanKey& key);

// How big a writer expects the LFIB to get. Tables that its ledgerMountIs creates hold that
// much from the start (slots and buckets: no growth, no re-chaining during a bulk load); the
// tables still grow beyond it, and shrink no lower than its bucket count. Tables that already
// exist keep their size.
struct LfibExpectedSize {
  uint32_t routes = 0;  // routes, and as many via sets
  uint32_t mplsVias = 0;
};

// Via types 3 to 8 (IP lookup counts on purpose): their routes carry metric 0 and their via
// sets at most one via key.
bool isEvpnViaType(LfibViaType viaType);

class LfibStatus : public Zinc::Entity {
  ZINC_ENTITY(LfibStatus, "Mpls::LfibStatus")
  using Self = LfibStatus;

 public:
#define MPLS_LFIB_STATUS_TABLES(X)                                                           \
  X(lfibRoute, LfibRoute, RouteKey, LfibRoute, (LedgerTable<Self, LfibRoute, RouteKey>))     \
  X(viaSet, ViaSet, LfibViaSetKey, LfibViaSet, (ViaSetLedger<Self>))                         \
  X(mplsVia, MplsVia, LfibViaKey, LfibMplsVia, (LedgerTable<Self, LfibMplsVia, LfibViaKey>)) \
  X(pwVia, PwVia, LfibViaKey, LfibPwVia, (LedgerTable<Self, LfibPwVia, LfibViaKey>))         \
  X(ipLookupVia, IpLookupVia, LfibViaKey, LfibIpLookupVia,                                   \
    (LedgerTable<Self, LfibIpLookupVia, LfibViaKey>))                                        \
  X(vlanVia, VlanVia, LfibViaKey, LfibVlanVia, (LedgerTable<Self, LfibVlanVia, LfibViaKey>)) \
  X(evpnVlanAwareVia, EvpnVlanAwareVia, LfibViaKey, LfibEvpnVlanAwareVia,                    \
    (LedgerTable<Self, LfibEvpnVlanAwareVia, LfibViaKey>))                                   \
  X(evpnEthernetSegmentFilterVia, EvpnEthernetSegmentFilterVia, LfibViaKey,                  \
    LfibEvpnEthernetSegmentFilterVia,                                                        \
    (LedgerTable<Self, LfibEvpnEthernetSegmentFilterVia, LfibViaKey>))                       \
  X(evpnVlanFloodVia, EvpnVlanFloodVia, LfibViaKey, LfibEvpnVlanFloodVia,                    \
    (LedgerTable<Self, LfibEvpnVlanFloodVia, LfibViaKey>))                                   \
  X(evpnVlanAwareFloodVia, EvpnVlanAwareFloodVia, LfibViaKey, LfibEvpnVlanAwareFloodVia,     \
    (LedgerTable<Self, LfibEvpnVlanAwareFloodVia, LfibViaKey>))                              \
  X(extFecVia, ExtFecVia, LfibViaKey, LfibExtFecVia,                                         \
    (LedgerTable<Self, LfibExtFecVia, LfibViaKey>))                                          \
  X(dot1qTagToVlanComposite, Dot1qTagToVlanComposite, LfibDot1qTagToVlanCompositeKey,        \
    LfibDot1qTagToVlanComposite,                                                             \
    (LedgerTable<Self, LfibDot1qTagToVlanComposite, LfibDot1qTagToVlanCompositeKey>))

  class NotifieeConst : public Zinc::NotifieeConstOf<LfibStatus> {
   public:
    MPLS_LFIB_STATUS_TABLES(MPLS_LEDGER_NOTIFIEE_OPS)
    virtual void onDot1qTagToVlanColl(const LfibDot1qTagToVlanKey&) {}
  };
  ZINC_NOTIFIEE(LfibStatus)

  explicit LfibStatus(const Zinc::Name& name);
  ~LfibStatus() override;

  // Mounts every table. The writer side attaches (adopting what a previous writer left) and
  // kicks readers at the end of each loop iteration (with `loop`) or on ledgerFlushKicks().
  // The reader side (readOnly with a loop) follows each table through a key shadow on `loop`
  // and notifies per changed key; its reads go to the writer's tables.
  void ledgerMountIs(Ledger::LedgerMode mode, const std::string& root = {}, uint32_t capacity = 64,
                     Zinc::Loop* loop = nullptr);
  // Sizes the tables that the next writer mount creates (see LfibExpectedSize).
  void ledgerExpectedSizeIs(const LfibExpectedSize& size) { expectedSize_ = size; }
  const LfibExpectedSize& ledgerExpectedSize() const { return expectedSize_; }
  void ledgerFlushKicks();
  // Reader side: every table's shadow has consumed all that the writer published.
  bool ledgerInStep() const;
  void ledgerUnmount();
  // The folder under the ledger root that holds this entity's tables.
  std::string ledgerFolder() const { return "lfib/" + std::string(name().view()); }
  // validateFiles on every table; true when all pass.
  bool validateFiles();
  // Each table's files validated: (table name, passed).
  std::vector<std::pair<std::string, bool>> validateEachTable();
  // Bytes that the tables' files take in shared memory (allocated blocks).
  uint64_t ledgerBytes() const;

  uint64_t counter(const std::string& name) const { return counterRegistry_.counter(name); }
  const CounterRegistry& counterRegistry() const { return counterRegistry_; }
  // One line per collection with its element count, indented by `indent` blanks.
  void dumpState(std::ostream& context, int indent) const;

  // Validation (lfib/MplsLfib.cc); each passes for an absent element.
  void verifyLfibRoute(const RouteKey& key) const { handleRoute(key); }
  void verifyViaSet(const LfibViaSetKey& key) const { handleViaSet(key); }
  void handleRoute(const RouteKey& key) const;
  void handleViaSet(const LfibViaSetKey& key) const;
  void verifyViaTypeMplsIp(const LfibViaKey& key) const;
  void verifyViaTypeMplsPseudowire(const LfibViaKey& key) const;
  void verifyViaTypeIpLookup(const LfibViaKey& key) const;
  void verifyViaTypeVlan(const LfibViaKey& key) const;
  void verifyViaTypeEvpnVlanAware(const LfibViaKey& key) const;
  void verifyViaTypeEvpnEthernetSegment(const LfibViaKey& key) const;
  void verifyViaTypeEvpnVlanFlood(const LfibViaKey& key) const;
  void verifyViaTypeEvpnVlanAwareFlood(const LfibViaKey& key) const;
  void verifyViaTypeExternalFec(const LfibViaKey& key) const;
  void verifyMplsVia(const LfibViaKey& key) const { verifyViaTypeMplsIp(key); }
  void verifyPwVia(const LfibViaKey& key) const { verifyViaTypeMplsPseudowire(key); }
  void verifyIpLookupVia(const LfibViaKey& key) const { verifyViaTypeIpLookup(key); }
  void verifyVlanVia(const LfibViaKey& key) const { verifyViaTypeVlan(key); }
  void verifyEvpnVlanAwareVia(const LfibViaKey& key) const { verifyViaTypeEvpnVlanAware(key); }
  void verifyEvpnEthernetSegmentFilterVia(const LfibViaKey& key) const {
    verifyViaTypeEvpnEthernetSegment(key);
  }
  void verifyEvpnVlanFloodVia(const LfibViaKey& key) const { verifyViaTypeEvpnVlanFlood(key); }
  void verifyEvpnVlanAwareFloodVia(const LfibViaKey& key) const {
    verifyViaTypeEvpnVlanAwareFlood(key);
  }
  void verifyExtFecVia(const LfibViaKey& key) const { verifyViaTypeExternalFec(key); }
  void verifyDot1qTagToVlanComposite(const LfibDot1qTagToVlanCompositeKey&) const {}

 private:
  class ZeroReferencesRelease : public Zinc::ZeroReferencesNotifiee {
   public:
    void onZeroReferences(const Zinc::PtrInterface* object) override;
  };
  void releaseTables();
  // `control` with the entries that the writer expects in the collection `attr`.
  CollectionControl expecting(CollectionControl control, std::string_view attr) const;

  CounterRegistry counterRegistry_;
  ZeroReferencesRelease zeroReferencesRelease_;
  std::string mountedRoot_;
  LfibExpectedSize expectedSize_;

 public:
  MPLS_LFIB_STATUS_TABLES(MPLS_LEDGER_COLLECTION)
  ZINC_HASH_COLLECTION(dot1qTagToVlanColl, Dot1qTagToVlanColl, LfibDot1qTagToVlanKey,
                       Zinc::Ptr<LfibDot1qTagToVlan>)
};
Zinc::Ptr<LfibStatus> lfibStatusFactory(const Zinc::Name& name);

// What the hardware side could not program.
class LfibHwStatus : public Zinc::Entity {
  ZINC_ENTITY(LfibHwStatus, "Mpls::LfibHwStatus")
  using Self = LfibHwStatus;

 public:
#define MPLS_LFIB_HW_STATUS_TABLES(X)                          \
  X(viaSet, ViaSet, LfibViaSetKey, LfibViaSetInfo,             \
    (LedgerTable<Self, LfibViaSetInfo, LfibViaSetKey>))        \
  X(unprogrammedRoute, UnprogrammedRoute, RouteKey, RouteInfo, \
    (LedgerTable<Self, RouteInfo, RouteKey>))

  class NotifieeConst : public Zinc::NotifieeConstOf<LfibHwStatus> {
   public:
    MPLS_LFIB_HW_STATUS_TABLES(MPLS_LEDGER_NOTIFIEE_OPS)
  };
  ZINC_NOTIFIEE(LfibHwStatus)

  explicit LfibHwStatus(const Zinc::Name& name) : Zinc::Entity(name) {}
  ~LfibHwStatus() override;
  void ledgerMountIs(Ledger::LedgerMode mode, const std::string& root = {}, uint32_t capacity = 64,
                     Zinc::Loop* loop = nullptr);
  std::string ledgerFolder() const { return "lfibHw/" + std::string(name().view()); }
  uint64_t counter(const std::string& name) const { return counterRegistry_.counter(name); }
  void verifyViaSet(const LfibViaSetKey&) const {}
  void verifyUnprogrammedRoute(const RouteKey&) const {}

 private:
  CounterRegistry counterRegistry_;

 public:
  MPLS_LFIB_HW_STATUS_TABLES(MPLS_LEDGER_COLLECTION)
};
Zinc::Ptr<LfibHwStatus> lfibHwStatusFactory(const Zinc::Name& name);

}  // namespace Mpls
