// mpls_demo: builds the LFIB records of one labelled route with two ECMP next hops, a
// pseudowire and a VRF lookup, prints their text forms and ledger strings, and checks that each
// comes back unchanged through its text form (where it has one) and its serialised form.
// Exits 0 when every round trip holds, 1 otherwise.
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "lfib/LfibTypes.h"
#include "lfib/StoredLayouts.h"

namespace {

int failures = 0;

template <class T>
void roundTrip(const char* what, const T& value) {
  std::cout << "== " << what << "\n  " << value << "\n  ledger: " << value.ledgerString() << "\n";
  if constexpr (Zinc::ValueTraits<T>::hasCollection) {
    std::cout << "  text form: not parsed back (holds an inline array)\n";
  } else {
    T parsed = Zinc::strepToValue<T>(valueToStrep(value));
    bool same = parsed == value;
    failures += !same;
    std::cout << "  text form round trip: " << (same ? "ok" : "MISMATCH") << "\n";
  }
  std::vector<uint8_t> bytes(Zinc::Serial<T>::size);
  size_t len = Zinc::Serial<T>::store(value, bytes.data());
  T loaded;
  Zinc::Serial<T>::load(bytes.data(), len, loaded);
  bool same = loaded == value;
  failures += !same;
  std::cout << "  serialised " << len << " bytes, round trip: " << (same ? "ok" : "MISMATCH")
            << "\n";
}

}  // namespace

int main() {
  using namespace Mpls;
  const LFib::Source ldp = LFib::sourceLdp_;

  // Two MPLS next hops for label 100: swap to 2001 and 3001, each pushing a transport label.
  LfibViaKey via1(ldp, viaTypeMplsIp_, 1), via2(ldp, viaTypeMplsIp_, 2);
  Wire::MplsLabelOperation swap1(Wire::labelActionSwap_, Wire::MplsLabelStack{16001, 2001});
  Wire::MplsLabelOperation swap2(Wire::labelActionSwap_, Wire::MplsLabelStack{16002, 3001});
  LfibMplsVia mplsVia1(via1, Wire::IpGenAddr("10.0.12.2"), Wire::labelActionSwap_, swap1,
                       Wire::IntfId(101), payloadTypeMpls_, false, ttlModeUniform_, 1);
  LfibMplsVia mplsVia2(via2, Wire::IpGenAddr("fe80::2"), Wire::labelActionSwap_, swap2,
                       Wire::IntfId(102), payloadTypeMpls_, false, ttlModeUniform_, 3);

  LfibViaSetKey setKey(ldp, 1, viaTypeMplsIp_, viaSetTypeEcmp_);
  LfibViaSet viaSet(setKey);
  viaSet.isUsableAsPrimaryViaIs(true);
  viaSet.viaKeyIs(0, via1);
  viaSet.viaKeyIs(1, via2);

  LfibRoute route(
      RouteKey(Wire::MplsLabel(100)), setKey, ldp,
      FwdEqvClass(fecTypePrefix_, Wire::IpGenPrefix("192.0.2.0/24"), Wire::IpGenAddr(), 0, 0, 0),
      RouteMetric(9, 20, 0, 0, 0));

  LfibPwVia pwVia(LfibViaKey(LFib::sourcePseudowire_, viaTypeMplsPseudowire_, 1), Wire::IntfId(501),
                  true, Pseudowire::pwTypeEthernetTagged_);
  LfibIpLookupVia lookupVia(LfibViaKey(LFib::sourceVrfLabel_, viaTypeIpLookup_, 1),
                            L3::VrfName("customer-red"), payloadTypeIpv4_);

  roundTrip("route", route);
  roundTrip("ECMP via set", viaSet);
  roundTrip("MPLS via", mplsVia1);
  roundTrip("MPLS via (IPv6 next hop)", mplsVia2);
  roundTrip("pseudowire via", pwVia);
  roundTrip("IP lookup via", lookupVia);
  std::cout << "  VRF name: " << lookupVia.vrfName() << "\n";
  std::cout << "slot sizes: route " << StoredLayouts::slotSize(Zinc::Serial<LfibRoute>::size)
            << ", MPLS via " << StoredLayouts::slotSize(Zinc::Serial<LfibMplsVia>::size)
            << ", pseudowire via " << StoredLayouts::slotSize(Zinc::Serial<LfibPwVia>::size)
            << "\n";
  std::cout << (failures ? "FAILED" : "all round trips ok") << "\n";
  return failures ? 1 : 0;
}
