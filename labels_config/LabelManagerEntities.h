// The entities of the label manager.
//
//  ClientLabelRequest (written by each label client under mpls/config/labelRequest/<client>):
//    labelRequest, keyed by request identifier; presence means "one block for this id".
//  LabelBlockAllocation (one per client, in Api::Status): block, keyed by request
//    identifier, the block that serves the request.
//  Api::Status (written by the manager): dynamicLabelRange, the range in use, and
//    labelBlockAllocation, keyed by client name.
//  LabelManagerClient (the manager's own, "client"): request, keyed by client name, the
//    request entities currently in the directory.
//  LabelManagerClientInfo (the manager's own, one per client): blockIndex, keyed by request
//    identifier, the allocator number behind each published block.
#pragma once

#include "labels_config/LabelTypes.h"
#include "zinc/Collection.h"

namespace Mpls {

class ClientLabelRequest : public Zinc::Entity {
  ZINC_ENTITY(ClientLabelRequest, "Mpls::ClientLabelRequest")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<ClientLabelRequest> {
   public:
    virtual void onLabelRequest(const Zinc::String&) {}
  };
  ZINC_NOTIFIEE(ClientLabelRequest)
  ZINC_ORDERED_COLLECTION(labelRequest, LabelRequest, Zinc::String, bool)

 public:
  explicit ClientLabelRequest(Zinc::Name name) : Entity(std::move(name)) {}
  void labelRequestIs(const Zinc::String& id) { labelRequestIs(id, true); }
};

class LabelBlockAllocation : public Zinc::Entity {
  ZINC_ENTITY(LabelBlockAllocation, "Mpls::LabelBlockAllocation")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<LabelBlockAllocation> {
   public:
    virtual void onBlock(const Zinc::Name&) {}
  };
  ZINC_NOTIFIEE(LabelBlockAllocation)
  ZINC_ORDERED_COLLECTION(block, Block, Zinc::Name, Mpls::LabelBlock)

 public:
  explicit LabelBlockAllocation(Zinc::Name name) : Entity(std::move(name)) {}
};

namespace Api {

class Status : public Zinc::Entity {
  ZINC_ENTITY(Status, "Mpls::Api::Status")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<Status> {
   public:
    virtual void onDynamicLabelRange() {}
    virtual void onLabelBlockAllocation(const Zinc::Name&) {}
  };
  ZINC_NOTIFIEE(Status)
  ZINC_ATTRIBUTE(dynamicLabelRange, DynamicLabelRange, Mpls::LabelRange)
  ZINC_ORDERED_COLLECTION(labelBlockAllocation, LabelBlockAllocation, Zinc::Name,
                          LabelBlockAllocation::Ptr)

 public:
  explicit Status(Zinc::Name name) : Entity(std::move(name)) {}
  // The client's allocation, created empty when absent.
  LabelBlockAllocation::Ptr labelBlockAllocationIs(const Zinc::Name& client);
};

inline Status::Ptr statusFactory(const Zinc::Name& name) { return Zinc::makePtr<Status>(name); }

}  // namespace Api

class LabelManagerClient : public Zinc::Entity {
  ZINC_ENTITY(LabelManagerClient, "Mpls::LabelManagerClient")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<LabelManagerClient> {
   public:
    virtual void onRequest(const Zinc::Name&) {}
  };
  ZINC_NOTIFIEE(LabelManagerClient)
  ZINC_ORDERED_COLLECTION(request, Request, Zinc::Name, ClientLabelRequest::PtrConst)

 public:
  explicit LabelManagerClient(Zinc::Name name) : Entity(std::move(name)) {}
};

class LabelManagerClientInfo : public Zinc::Entity {
  ZINC_ENTITY(LabelManagerClientInfo, "Mpls::LabelManagerClientInfo")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<LabelManagerClientInfo> {
   public:
    virtual void onBlockIndex(const Zinc::Name&) {}
  };
  ZINC_NOTIFIEE(LabelManagerClientInfo)
  ZINC_ORDERED_COLLECTION(blockIndex, BlockIndex, Zinc::Name, uint32_t)

 public:
  explicit LabelManagerClientInfo(Zinc::Name name) : Entity(std::move(name)) {}
};

ClientLabelRequest::Ptr clientLabelRequestFactory(const Zinc::Name& name);
LabelBlockAllocation::Ptr labelBlockAllocationFactory(const Zinc::Name& name);
LabelManagerClient::Ptr labelManagerClientFactory(const Zinc::Name& name);
LabelManagerClientInfo::Ptr labelManagerClientInfoFactory(const Zinc::Name& name);

}  // namespace Mpls
