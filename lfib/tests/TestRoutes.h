// Test helper: MPLS routes whose vias follow from a few numbers, for tests of the LFIB writer.
#pragma once

#include <cstdint>

#include "lfib/ConsolidatedLfibRoute.h"

namespace Mpls::TestRoutes {

// A swap to `label` out of interface `hop`, towards 10.0.0.0 + hop.
inline LfibMplsVia mplsVia(uint32_t hop, uint32_t label, uint32_t weight = 1) {
  LfibMplsVia via;
  via.nextHopIs(Wire::IpGenAddr::ipv4(0x0a000000 + hop));
  via.labelActionIs(Wire::labelActionSwap_);
  Wire::MplsLabelOperation op;
  op.operationIs(Wire::labelActionSwap_);
  op.labelPush(Wire::MplsLabel(label));
  via.labelStackIs(op);
  via.intfIs(Wire::IntfId(hop));
  via.weightIs(weight);
  return via;
}

// An LDP route for `label` with `vias` ECMP vias: hops firstHop, firstHop + 1, ... swapping to
// 1000, 1001, ...
inline ConsolidatedLfibRoute route(uint32_t label, uint32_t vias, uint32_t firstHop = 1) {
  ConsolidatedLfibRoute r(RouteKey(Wire::MplsLabel(label)), LFib::sourceLdp_, FwdEqvClass(),
                          RouteMetric(), viaTypeMplsIp_, viaSetTypeEcmp_);
  for (uint32_t i = 0; i < vias; ++i) r.mplsViaIs(mplsVia(firstHop + i, 1000 + i));
  return r;
}

}  // namespace Mpls::TestRoutes
