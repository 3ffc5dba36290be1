#include "lfib/ConsolidatedLfibRoute.h"

#include <sstream>

#include "zinc/Exception.h"
#include "zinc/Hash.h"

namespace Mpls {

namespace {

template <class Via>
void printVias(std::ostream& os, const std::set<Via>& vias) {
  os << "[";
  const char* sep = "";
  for (const Via& via : vias) {
    os << sep << via;
    sep = ", ";
  }
  os << "]";
}

}  // namespace

void ConsolidatedLfibRoute::verifyVia(const LfibViaKey& vk) {
  ZINC_ASSERT(vk == LfibViaKey(), "Vias in ConsolidatedLfibRoute should have an unset key only");
}

uint32_t ConsolidatedLfibRoute::hash() const {
  Zinc::Hash h;
  h.mix(key_.hash());
  h.mix(static_cast<uint32_t>(source_));
  h.mix(fec_.hash());
  h.mix(metric_.hash());
  h.mix(static_cast<uint32_t>(viaType_));
  h.mix(static_cast<uint32_t>(viaSetType_));
  for (const auto& v : mplsVia_) h.mix(v.hash());
  for (const auto& v : pwVia_) h.mix(v.hash());
  for (const auto& v : ipLookupVia_) h.mix(v.hash());
  for (const auto& v : extFecVia_) h.mix(v.hash());
  return h.result();
}

std::ostream& operator<<(std::ostream& os, const ConsolidatedLfibRoute& r) {
  os << "Value('Mpls::ConsolidatedLfibRoute', ** {'key': " << r.key_ << ", 'source': " << r.source_
     << ", 'fec': " << r.fec_ << ", 'metric': " << r.metric_ << ", 'viaType': " << r.viaType_
     << ", 'viaSetType': " << r.viaSetType_ << ", 'mplsVia': ";
  printVias(os, r.mplsVia_);
  os << ", 'pwVia': ";
  printVias(os, r.pwVia_);
  os << ", 'ipLookupVia': ";
  printVias(os, r.ipLookupVia_);
  os << ", 'extFecVia': ";
  printVias(os, r.extFecVia_);
  return os << "})";
}

std::string valueToStrep(const ConsolidatedLfibRoute& r) {
  std::ostringstream os;
  os << r;
  return os.str();
}

ConsolidatedLfibRoute ConsolidatedLfibRoute::fromString(std::string_view) {
  Zinc::noStringConstructor("ConsolidatedLfibRoute");
}

}  // namespace Mpls
