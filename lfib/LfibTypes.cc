#include "lfib/LfibTypes.h"

#include <algorithm>
#include <sstream>

#include "zinc/Exception.h"

namespace Mpls {

LfibIpLookupVia::LfibIpLookupVia(const LfibViaKey& key, const L3::VrfName& vrfName,
                                 PayloadType payloadType) {
  key_ = key;
  payloadType_ = payloadType;
  vrfNameIs(vrfName);
}

void LfibIpLookupVia::vrfNameIs(const L3::VrfName& name) {
  ZINC_ASSERT(name.size() <= L3::VrfName::maxLength(), "VRF name does not fit the name buffer");
  vrfNameBuffer_.elemDelAll();
  std::string_view bytes = name.view();
  for (size_t i = 0; i < bytes.size(); ++i) {
    vrfNameBuffer_.elemIs(LfibVrfNameIndexRange(i), static_cast<uint8_t>(bytes[i]));
  }
  // The terminating zero counts: setting it grows the count to the length plus one.
  vrfNameBuffer_.elemIs(LfibVrfNameIndexRange(bytes.size()), 0);
}

namespace {

// The buffer's bytes up to the first zero (or its end), unchecked.
std::string_view bufferText(const LfibIpLookupVia::vrfNameBufferArray& buffer) {
  const uint8_t* end = std::find(buffer.begin(), buffer.end(), uint8_t(0));
  return std::string_view(reinterpret_cast<const char*>(buffer.begin()),
                          static_cast<size_t>(end - buffer.begin()));
}

}  // namespace

L3::VrfName LfibIpLookupVia::vrfName() const {
  std::string_view text = bufferText(vrfNameBuffer_);
  if (text.size() > L3::VrfName::maxLength()) {
    throw Zinc::RangeException("VrfName::bytes > VrfName::maxLength not allowed");
  }
  return L3::VrfName(text);
}

// Written for trace lines: shows the name even when it is too long to be valid.
std::string LfibIpLookupVia::ledgerString() const {
  std::ostringstream os;
  os << "[" << key() << "] " << payloadType() << " ";
  Zinc::writeQuoted(os, bufferText(vrfNameBuffer_));
  return os.str();
}

}  // namespace Mpls
