// Mpls::Config: the MPLS configuration that the label manager reads: whether MPLS routing
// is on, and the named label ranges (the label manager uses the one named "dynamic").
#pragma once

#include "labels_config/LabelTypes.h"
#include "zinc/Collection.h"

namespace Mpls {

class Config : public Zinc::Entity {
  ZINC_ENTITY(Config, "Mpls::Config")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<Config> {
   public:
    virtual void onMplsRouting() {}
    virtual void onLabelRange(const Zinc::Name&) {}
  };
  ZINC_NOTIFIEE(Config)
  ZINC_ATTRIBUTE(mplsRouting, MplsRouting, bool)
  ZINC_ORDERED_COLLECTION(labelRange, LabelRange, Zinc::Name, Mpls::LabelRange)

 public:
  explicit Config(Zinc::Name name) : Entity(std::move(name)) {}
};

inline Config::Ptr configFactory(const Zinc::Name& name) { return Zinc::makePtr<Config>(name); }

}  // namespace Mpls
