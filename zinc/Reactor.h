// Reactors: state machines (class names ending in "Sm") built from notifiees.
//
// A reactor derives from T::NotifieeConst (or T::Notifiee) for each entity it watches, binds
// on construction, and forwards each on<Attr>(key) to its own handle<Attr>(key). A state
// machine owns its reactors; it is itself an entity created by a free factory function
// (<type>Factory) and held through Zinc::Ptr.
//
// requireInput() guards the mutators that attach a reactor's inputs:
//   Zinc::requireInput(p, "_labelRequestDir", "Mpls::LabelManagerSm::labelRequestDir");
// throws Zinc::NullPointerException("null _labelRequestDir parameter to mutator for
// Mpls::LabelManagerSm::labelRequestDir not allowed") when p is null.
#pragma once

#include <string>
#include <string_view>

#include "zinc/Exception.h"

namespace Zinc {

class NullPointerException : public Exception {
 public:
  using Exception::Exception;
};

std::string nullInputText(std::string_view parameter, std::string_view attribute);

template <class P>
void requireInput(const P& p, std::string_view parameter, std::string_view attribute) {
  if (!p) throw NullPointerException(nullInputText(parameter, attribute));
}

}  // namespace Zinc
