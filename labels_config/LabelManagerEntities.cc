#include "labels_config/LabelManagerEntities.h"

namespace Mpls {

ClientLabelRequest::Ptr clientLabelRequestFactory(const Zinc::Name& name) {
  return Zinc::makePtr<ClientLabelRequest>(name);
}
LabelBlockAllocation::Ptr labelBlockAllocationFactory(const Zinc::Name& name) {
  return Zinc::makePtr<LabelBlockAllocation>(name);
}
LabelManagerClient::Ptr labelManagerClientFactory(const Zinc::Name& name) {
  return Zinc::makePtr<LabelManagerClient>(name);
}
LabelManagerClientInfo::Ptr labelManagerClientInfoFactory(const Zinc::Name& name) {
  return Zinc::makePtr<LabelManagerClientInfo>(name);
}

namespace Api {

LabelBlockAllocation::Ptr Status::labelBlockAllocationIs(const Zinc::Name& client) {
  if (auto existing = labelBlockAllocation(client)) return existing;
  auto alloc = labelBlockAllocationFactory(client);
  labelBlockAllocationIs(client, alloc);
  return alloc;
}

}  // namespace Api

}  // namespace Mpls
