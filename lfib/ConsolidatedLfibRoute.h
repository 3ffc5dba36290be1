// ConsolidatedLfibRoute: one whole route as a producer sees it (label, FEC, metric and its
// next hops), which LfibWriter turns into vias, a via set and a route of LfibStatus.
//
// The vias carry the unset key (all zero); the writer assigns keys. The via collections are
// kept in ascending order of the via records, so that the writer's walk, and which vias a cut
// at 128 keeps, do not depend on hashing.
//
// The via type says which collection is walked: mplsVia for viaTypeMplsIp, pwVia for
// viaTypeMplsPseudowire, ipLookupVia for viaTypeIpLookup, extFecVia for viaTypeExternalFec.
// viaTypeVlan and the EVPN via types have no via record here: their producers write those
// vias themselves, and a consolidated route of such a type is written with an empty via set.
#pragma once

#include <ostream>
#include <set>
#include <string>

#include "lfib/LfibTypes.h"

namespace Mpls {

class ConsolidatedLfibRoute {
 public:
  ConsolidatedLfibRoute() = default;
  ConsolidatedLfibRoute(const RouteKey& key, LFib::Source source, const FwdEqvClass& fec,
                        const RouteMetric& metric, LfibViaType viaType, LfibViaSetType viaSetType)
      : key_(key),
        source_(source),
        fec_(fec),
        metric_(metric),
        viaType_(viaType),
        viaSetType_(viaSetType) {}

  const RouteKey& key() const { return key_; }
  LFib::Source source() const { return source_; }
  const FwdEqvClass& fec() const { return fec_; }
  const RouteMetric& metric() const { return metric_; }
  LfibViaType viaType() const { return viaType_; }
  LfibViaSetType viaSetType() const { return viaSetType_; }
  void keyIs(const RouteKey& v) { key_ = v; }
  void sourceIs(LFib::Source v) { source_ = v; }
  void fecIs(const FwdEqvClass& v) { fec_ = v; }
  void metricIs(const RouteMetric& v) { metric_ = v; }
  void viaTypeIs(LfibViaType v) { viaType_ = v; }
  void viaSetTypeIs(LfibViaSetType v) { viaSetType_ = v; }

#define MPLS_CONSOLIDATED_VIAS(attr, Via)                                \
  const std::set<Via>& attr##s() const { return attr##_; }               \
  void attr##Is(const Via& via) {                                        \
    verifyVia(via.key());                                                \
    attr##_.insert(via);                                                 \
  }                                                                      \
  void attr##Del(const Via& via) {                                       \
    verifyVia(via.key());                                                \
    attr##_.erase(via);                                                  \
  }                                                                      \
  void attr##DelAll() { attr##_.clear(); }                               \
  bool attr##Has(const Via& via) const { return attr##_.contains(via); } \
  const std::set<Via>& vias(const Via*) const { return attr##_; }        \
                                                                         \
 private:                                                                \
  std::set<Via> attr##_;                                                 \
                                                                         \
 public:
  MPLS_CONSOLIDATED_VIAS(mplsVia, LfibMplsVia)
  MPLS_CONSOLIDATED_VIAS(pwVia, LfibPwVia)
  MPLS_CONSOLIDATED_VIAS(ipLookupVia, LfibIpLookupVia)
  MPLS_CONSOLIDATED_VIAS(extFecVia, LfibExtFecVia)
#undef MPLS_CONSOLIDATED_VIAS

  // True for a route without any via.
  bool operator!() const {
    return mplsVia_.empty() && pwVia_.empty() && ipLookupVia_.empty() && extFecVia_.empty();
  }
  friend bool operator==(const ConsolidatedLfibRoute&, const ConsolidatedLfibRoute&) = default;
  uint32_t hash() const;
  friend std::ostream& operator<<(std::ostream& os, const ConsolidatedLfibRoute& r);
  friend std::string valueToStrep(const ConsolidatedLfibRoute& r);
  // Parsing is refused: the type holds collections.
  static ConsolidatedLfibRoute fromString(std::string_view text);

 private:
  static void verifyVia(const LfibViaKey& vk);

  RouteKey key_;
  LFib::Source source_ = LFib::sourceUnknown_;
  FwdEqvClass fec_;
  RouteMetric metric_;
  LfibViaType viaType_ = viaTypeMplsUnknown_;
  LfibViaSetType viaSetType_ = viaSetTypeNone_;
};

}  // namespace Mpls
