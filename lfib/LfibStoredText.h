// The text form of a stored LFIB record, found by the value type name that a table's header
// carries ("Mpls::LfibRoute"): lets inspection tools print tables typed instead of as hex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "lfib/LfibTypes.h"

namespace Mpls {

// Every record type that the LFIB tables store, in the order the text lookup tries them.
using StoredRecords =
    std::tuple<LfibRoute, LfibViaSet, LfibMplsVia, LfibPwVia, LfibIpLookupVia, LfibVlanVia,
               LfibEvpnVlanAwareVia, LfibEvpnEthernetSegmentFilterVia, LfibEvpnVlanFloodVia,
               LfibEvpnVlanAwareFloodVia, LfibExtFecVia, LfibDot1qTagToVlanComposite, RouteInfo,
               LfibViaSetInfo>;

// "Value('Mpls::LfibRoute', ** {...})" for the stored bytes of a known LFIB record type;
// nullopt for an unknown type or bytes that hold no possible value.
std::optional<std::string> storedValueText(std::string_view valueTypeName, const uint8_t* bytes,
                                           size_t size);

}  // namespace Mpls
