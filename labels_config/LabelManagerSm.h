// Mpls::LabelManagerSm: hands out blocks of 16384 dynamic labels to label clients.
//
// Each client publishes an Mpls::ClientLabelRequest under mpls/config/labelRequest/<client>
// with one identifier per block it wants. For each identifier the manager takes a number
// from its allocator (Keel::NumAllocator over 0 .. blocks-1 of the configured dynamic range)
// and publishes the block's first label in Api::Status; when the identifier goes, the
// number goes back (held for a second before it is handed out again).
//
// Published allocations survive a restart of the manager: the constructor reads them back
// and reserves their numbers again (syncAllocations). A status that does not fit the block
// grid of the configured range, or that gives one block to two requests, is withdrawn
// whole and served afresh.
//
// Inputs are watched through reactors; all handlers run on the notification loop and do
// nothing before handleInitialized() has run or while MPLS routing is off.
#pragma once

#include <map>
#include <memory>

#include "labels_config/LabelManagerEntities.h"
#include "labels_config/MplsConfig.h"
#include "platform/hub/EntityManager.h"
#include "platform/keel/NumAllocator.h"
#include "zinc/Dir.h"

namespace Mpls {

class LabelManagerSm : public Zinc::Entity {
  ZINC_ENTITY(LabelManagerSm, "Mpls::LabelManagerSm")

 public:
  static Ptr LabelManagerSmIs(Keel::TimerWheel::PtrConst timerWheel,
                              Hub::EntityManager::Ptr entityManager,
                              Zinc::Dir::PtrConst labelRequestDir, Config::PtrConst mplsConfig,
                              Api::Status::Ptr status);
  LabelManagerSm(Keel::TimerWheel::PtrConst timerWheel, Hub::EntityManager::Ptr entityManager,
                 Zinc::Dir::PtrConst labelRequestDir, Config::PtrConst mplsConfig,
                 Api::Status::Ptr status);
  ~LabelManagerSm() override;

  // Inputs and outputs.
  const Keel::TimerWheel::PtrConst& timerWheel() const { return timerWheel_; }
  const Hub::EntityManager::Ptr& entityManager() const { return entityManager_; }
  Zinc::Dir::PtrConst labelRequestDir() const { return dirReactor_.notifier(); }
  Config::PtrConst mplsConfig() const { return configReactor_.notifier(); }
  const Api::Status::Ptr& status() const { return status_; }
  // Rebinding the configuration re-runs checkClearLabelRanges().
  void labelRequestDirIs(const Zinc::Dir::PtrConst& dir);
  void mplsConfigIs(const Config::PtrConst& config);

  // Own state.
  const LabelManagerClient::Ptr& client() const { return client_; }
  LabelManagerClientInfo::Ptr clientInfo(const Zinc::Name& client) const;
  LabelManagerClientInfo::Ptr clientInfoIs(const Zinc::Name& client);
  void clientInfoDel(const Zinc::Name& client) { clientInfo_.erase(client); }
  void clientInfoDelAll() { clientInfo_.clear(); }
  size_t clientInfoCount() const { return clientInfo_.size(); }
  bool clientRequestHas(const Zinc::Name& client) const { return clientRequest_.contains(client); }

  // Set from outside while a client's request entity is being mounted: its removal from
  // the directory is then not taken as the client going away. Dropping the flag of a
  // client that is gone from the directory completes the deferred removal.
  bool pendingClientMount(const Zinc::Name& client) const;
  void pendingClientMountIs(const Zinc::Name& client, bool pending);
  void pendingClientMountDel(const Zinc::Name& client) { pendingClientMountIs(client, false); }
  void pendingClientMountDelAll();

  Keel::NumAllocatorConfig::Ptr drAllocConfig() const { return drAllocConfig_; }
  Keel::NumAllocatorStatus::Ptr drAllocStatus() const { return drAllocStatus_; }
  Keel::NumAllocator::Ptr drAlloc() const { return drAlloc_; }
  void drAllocConfigIs(const Keel::Range& range);
  void drAllocIs(const Keel::NumAllocatorConfig::PtrConst& config,
                 const Keel::NumAllocatorStatus::Ptr& status,
                 const Keel::TimerWheel::PtrConst& clock);
  void drAllocDel();

  bool initialized() const { return initialized_; }
  bool restarting() const { return restarting_; }
  bool allocValid() const { return allocValid_; }
  bool requestBacklog() const { return requestBacklog_; }

  // Derived values.
  LabelRange configRange() const;
  uint32_t configRangeBase() const { return configRange().base(); }
  uint64_t configRangeMax() const { return uint64_t(configRange().base()) + configRange().size(); }
  int64_t blockIdx(uint32_t label) const;
  uint32_t blockStart(int64_t index) const;
  bool blockIsValid(const LabelBlock& block) const;
  bool rangeExhausted() const { return drAllocStatus_->rangeExhausted(); }

  // Handlers; the no-argument forms run over every key.
  void handleInitialized();
  void checkClearLabelRanges();
  void handleLabelRange();
  void handleLabelRange(const Zinc::Name& name);
  void handleLabelRequestDir();
  void handleLabelRequestDir(const Zinc::Name& name);
  void handleLabelManagerClient();
  void handleLabelManagerClient(const Zinc::Name& name);
  void handleLabelRequest();
  void handleLabelRequest(const Zinc::Name& client, const Zinc::String& id);
  void handleRangeExhausted();

 private:
  class DirReactor : public Zinc::Dir::NotifieeConst {
   public:
    explicit DirReactor(LabelManagerSm* sm) : sm_(sm) {}
    void onEntry(const Zinc::Name& name) override { sm_->handleLabelRequestDir(name); }

   private:
    LabelManagerSm* sm_;
  };
  class ConfigReactor : public Config::NotifieeConst {
   public:
    explicit ConfigReactor(LabelManagerSm* sm) : sm_(sm) {}
    void onMplsRouting() override { sm_->checkClearLabelRanges(); }
    void onLabelRange(const Zinc::Name& name) override { sm_->handleLabelRange(name); }

   private:
    LabelManagerSm* sm_;
  };
  class ClientReactor : public LabelManagerClient::NotifieeConst {
   public:
    explicit ClientReactor(LabelManagerSm* sm) : sm_(sm) {}
    void onRequest(const Zinc::Name& name) override { sm_->handleLabelManagerClient(name); }

   private:
    LabelManagerSm* sm_;
  };
  class AllocStatusReactor : public Keel::NumAllocatorStatus::NotifieeConst {
   public:
    explicit AllocStatusReactor(LabelManagerSm* sm) : sm_(sm) {}
    void onRangeExhausted() override { sm_->handleRangeExhausted(); }

   private:
    LabelManagerSm* sm_;
  };
  class ClientRequestReactor : public ClientLabelRequest::NotifieeConst {
   public:
    ClientRequestReactor(LabelManagerSm* sm, const ClientLabelRequest::PtrConst& request)
        : sm_(sm), client_(request->name()) {
      notifierIs(request);
    }
    void onLabelRequest(const Zinc::String& id) override { sm_->handleLabelRequest(client_, id); }

   private:
    LabelManagerSm* sm_;
    Zinc::Name client_;
  };

  bool active() const { return initialized_ && mplsConfig()->mplsRouting(); }
  bool syncAllocations();
  void allocateLabelBlock(const Zinc::Name& client, const Zinc::String& id);
  bool republishRecordedBlock(const Zinc::Name& client, const Zinc::String& id,
                              LabelBlockAllocation& alloc, LabelManagerClientInfo& info);
  void removeLabelBlock(const Zinc::Name& client, const Zinc::String& id);
  void releaseBlockIndex(const Zinc::Name& client, const Zinc::String& id);
  void resetAllocator();
  void clientAdded(const Zinc::Name& name, const ClientLabelRequest::PtrConst& request);
  void clientRemoved(const Zinc::Name& name);
  void clientRequestReactorIs(const Zinc::Name& name, const ClientLabelRequest::PtrConst& req);
  int64_t gridStart(int64_t index) const;

  Keel::TimerWheel::PtrConst timerWheel_;
  Hub::EntityManager::Ptr entityManager_;
  Api::Status::Ptr status_;
  LabelManagerClient::Ptr client_;
  std::map<Zinc::Name, LabelManagerClientInfo::Ptr> clientInfo_;
  std::map<Zinc::Name, bool> pendingClientMount_;
  Keel::NumAllocatorConfig::Ptr drAllocConfig_;
  Keel::NumAllocatorStatus::Ptr drAllocStatus_;
  Keel::NumAllocator::Ptr drAlloc_;
  bool initialized_ = false;
  bool restarting_ = false;
  bool allocValid_ = false;
  bool requestBacklog_ = false;

  DirReactor dirReactor_{this};
  ConfigReactor configReactor_{this};
  ClientReactor clientReactor_{this};
  AllocStatusReactor allocStatusReactor_{this};
  std::map<Zinc::Name, std::unique_ptr<ClientRequestReactor>> clientRequest_;
};

LabelManagerSm::Ptr labelManagerSmFactory(Keel::TimerWheel::PtrConst timerWheel,
                                          Hub::EntityManager::Ptr entityManager,
                                          Zinc::Dir::PtrConst labelRequestDir,
                                          Config::PtrConst mplsConfig, Api::Status::Ptr status);

}  // namespace Mpls
