#include "labels_config/LabelManagerSm.h"

#include <algorithm>
#include <set>

#include "zinc/Exception.h"
#include "zinc/Reactor.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("LabelManagerSm")

// Every line of a handler starts with the handler's name.
#define LMTRACE(level, expr) ZTRACE(level, __func__ << expr)

namespace Mpls {

namespace {

const Zinc::Name dynamicRangeName("dynamic");
// The range in use when none is configured: labels 100000 .. 362143, 16 blocks.
const LabelRange defaultDynamicRange(100000, 0x40000);

}  // namespace

LabelManagerSm::Ptr labelManagerSmFactory(Keel::TimerWheel::PtrConst timerWheel,
                                          Hub::EntityManager::Ptr entityManager,
                                          Zinc::Dir::PtrConst labelRequestDir,
                                          Config::PtrConst mplsConfig, Api::Status::Ptr status) {
  return LabelManagerSm::LabelManagerSmIs(std::move(timerWheel), std::move(entityManager),
                                          std::move(labelRequestDir), std::move(mplsConfig),
                                          std::move(status));
}

LabelManagerSm::Ptr LabelManagerSm::LabelManagerSmIs(Keel::TimerWheel::PtrConst timerWheel,
                                                     Hub::EntityManager::Ptr entityManager,
                                                     Zinc::Dir::PtrConst labelRequestDir,
                                                     Config::PtrConst mplsConfig,
                                                     Api::Status::Ptr status) {
  return Zinc::makePtr<LabelManagerSm>(std::move(timerWheel), std::move(entityManager),
                                       std::move(labelRequestDir), std::move(mplsConfig),
                                       std::move(status));
}

LabelManagerSm::LabelManagerSm(Keel::TimerWheel::PtrConst timerWheel,
                               Hub::EntityManager::Ptr entityManager,
                               Zinc::Dir::PtrConst labelRequestDir, Config::PtrConst mplsConfig,
                               Api::Status::Ptr status)
    : Entity("LabelManagerSm"),
      timerWheel_(std::move(timerWheel)),
      entityManager_(std::move(entityManager)),
      status_(std::move(status)) {
  Zinc::requireInput(timerWheel_, "_timerWheel", "Mpls::LabelManagerSm::timerWheel");
  Zinc::requireInput(entityManager_, "_entityManager", "Mpls::LabelManagerSm::entityManager");
  Zinc::requireInput(status_, "_status", "Mpls::LabelManagerSm::status");
  labelRequestDirIs(labelRequestDir);
  mplsConfigIs(mplsConfig);
  drAllocStatus_ = Keel::numAllocatorStatusFactory("drAllocStatus");
  allocStatusReactor_.notifierIs(drAllocStatus_);
  client_ = labelManagerClientFactory("client");
  clientReactor_.notifierIs(client_);
  // Request entities already in the directory are entered into client.request, with their
  // reactors, by the full pass of handleInitialized().
  handleInitialized();
}

LabelManagerSm::~LabelManagerSm() {
  checkClearLabelRanges();
  clientRequest_.clear();
}

void LabelManagerSm::labelRequestDirIs(const Zinc::Dir::PtrConst& dir) {
  Zinc::requireInput(dir, "_labelRequestDir", "Mpls::LabelManagerSm::labelRequestDir");
  if (dir == dirReactor_.notifier()) return;
  dirReactor_.notifierIs(dir);
  handleLabelRequestDir();
}

void LabelManagerSm::mplsConfigIs(const Config::PtrConst& config) {
  Zinc::requireInput(config, "_mplsConfig", "Mpls::LabelManagerSm::mplsConfig");
  if (config == configReactor_.notifier()) return;
  configReactor_.notifierIs(config);
  checkClearLabelRanges();
}

LabelManagerClientInfo::Ptr LabelManagerSm::clientInfo(const Zinc::Name& client) const {
  auto it = clientInfo_.find(client);
  return it == clientInfo_.end() ? nullptr : it->second;
}

LabelManagerClientInfo::Ptr LabelManagerSm::clientInfoIs(const Zinc::Name& client) {
  auto& info = clientInfo_[client];
  if (!info) info = labelManagerClientInfoFactory(client);
  return info;
}

bool LabelManagerSm::pendingClientMount(const Zinc::Name& client) const {
  auto it = pendingClientMount_.find(client);
  return it != pendingClientMount_.end() && it->second;
}

void LabelManagerSm::pendingClientMountIs(const Zinc::Name& client, bool pending) {
  bool was = pendingClientMount(client);
  if (pending) {
    pendingClientMount_[client] = true;
    return;
  }
  pendingClientMount_.erase(client);
  // The flag held back the removal of a client that has left the directory: finish it.
  if (was && !client_->requestHas(client) && clientInfo_.contains(client)) {
    handleLabelManagerClient(client);
  }
}

void LabelManagerSm::pendingClientMountDelAll() {
  for (const auto& [client, pending] : std::map(pendingClientMount_)) {
    pendingClientMountDel(client);
  }
}

void LabelManagerSm::drAllocConfigIs(const Keel::Range& range) {
  if (!drAllocConfig_) drAllocConfig_ = Keel::numAllocatorConfigFactory("drAllocConfig");
  drAllocConfig_->rangeIs(range);
}

void LabelManagerSm::drAllocIs(const Keel::NumAllocatorConfig::PtrConst& config,
                               const Keel::NumAllocatorStatus::Ptr& status,
                               const Keel::TimerWheel::PtrConst& clock) {
  drAllocDel();
  drAlloc_ = Keel::numAllocatorFactory("drAlloc", config, status, clock);
}

void LabelManagerSm::drAllocDel() {
  drAlloc_.reset();
  // Block indices are numbers of the allocator: they go with it.
  for (auto& [client, info] : clientInfo_) info->blockIndexDelAll();
}

LabelRange LabelManagerSm::configRange() const {
  LabelRange configured = mplsConfig()->labelRange(dynamicRangeName);
  return configured == LabelRange() ? defaultDynamicRange : configured;
}

int64_t LabelManagerSm::blockIdx(uint32_t label) const {
  return (int64_t(label) - configRangeBase()) >> labelBlockShift;
}

int64_t LabelManagerSm::gridStart(int64_t index) const {
  return int64_t(configRangeBase()) + index * labelBlockSize;
}

uint32_t LabelManagerSm::blockStart(int64_t index) const {
  int64_t start = gridStart(index);
  LMTRACE(9, " index: " << index << ", start: " << start);
  return Wire::MplsLabel(start).value();
}

bool LabelManagerSm::blockIsValid(const LabelBlock& block) const {
  const uint32_t start = block.blockStart().value();
  bool valid = start >= configRangeBase() && uint64_t(start) + labelBlockSize <= configRangeMax();
  LMTRACE(9, " block start: " << start << ", valid: " << valid);
  return valid;
}

void LabelManagerSm::handleInitialized() {
  LMTRACE(8, " mplsRouting: " << mplsConfig()->mplsRouting());
  initialized_ = true;
  if (!mplsConfig()->mplsRouting()) {
    status_->labelBlockAllocationDelAll();
    return;
  }
  restarting_ = true;
  drAllocConfigIs(Keel::Range());
  handleLabelRange();
  restarting_ = false;
}

void LabelManagerSm::checkClearLabelRanges() {
  LMTRACE(8, " initialized: " << initialized_);
  if (initialized_) handleInitialized();
}

void LabelManagerSm::handleLabelRange(const Zinc::Name& name) {
  if (!active()) return;
  LMTRACE(8, " name: " << name);
  if (name == dynamicRangeName) handleLabelRange();
}

void LabelManagerSm::handleLabelRange() {
  if (!active()) return;
  const LabelRange range = configRange();
  LMTRACE(8, " range: " << range);
  allocValid_ = false;
  const uint64_t base = range.base().value();
  const uint64_t end = std::min<uint64_t>(range.end(), Wire::MplsLabel::max);
  if (base < end && end - base >= labelBlockSize) {
    const int64_t blocks = int64_t(end - base) >> labelBlockShift;
    LMTRACE(1, " allocate " << blocks << " blocks.");
    drAllocConfig_->rangeIs(Keel::Range(0, blocks - 1));
    drAllocConfig_->expiryTimeIs(1.0);
    if (!drAlloc_ || status_->dynamicLabelRange().base() != range.base()) resetAllocator();
    allocValid_ = true;
  } else {
    LMTRACE(1, " range holds no whole block");
    drAllocDel();
    status_->labelBlockAllocationDelAll();
    clientInfoDelAll();
  }
  status_->dynamicLabelRangeIs(range);
  handleLabelRequestDir();
  handleLabelManagerClient();
  handleLabelRequest();
}

void LabelManagerSm::resetAllocator() {
  ZTRACE(1, "handleLabelRange reset allocator");
  drAllocIs(drAllocConfig_, drAllocStatus_, timerWheel_);
  if (!restarting_) {
    status_->labelBlockAllocationDelAll();
  } else if (!syncAllocations()) {
    drAllocIs(drAllocConfig_, drAllocStatus_, timerWheel_);
    status_->labelBlockAllocationDelAll();
  }
}

bool LabelManagerSm::syncAllocations() {
  const std::vector<Zinc::Name> clients = status_->labelBlockAllocationKeys();
  for (const Zinc::Name& client : clients) clientInfoIs(client);
  const int64_t idxMax = drAllocConfig_->range().max();
  for (const Zinc::Name& client : clients) {
    LMTRACE(1, " sync client " << client << " with Hub (restart)");
    auto alloc = status_->labelBlockAllocation(client);
    auto info = clientInfo(client);
    for (const auto& [id, block] : alloc->blockColl()) {
      const uint32_t start = block.blockStart().value();
      const int64_t idx = blockIdx(start);
      const int64_t computed = gridStart(idx);
      if (computed != start || idx < 0 || idx > idxMax) {
        LMTRACE(0, " Hub status is inconsistent for client "
                       << client << ", idx: " << idx << ", idx max: " << idxMax
                       << ", iter->blockStart(): " << start << ", blockStart( idx ): " << computed);
        return false;
      }
      if (drAlloc_->isReserved(idx)) {
        LMTRACE(0, " error: idx already used for client " << client << ", idx: " << idx
                                                          << ", iter->blockStart(): " << start
                                                          << ", blockStart( idx ): " << computed);
        return false;
      }
      drAlloc_->reserveNumber(idx);
      info->blockIndexIs(id, uint32_t(idx));
      LMTRACE(1, " client " << client << " uses block " << idx << " for request " << id
                            << ", block start: " << start);
    }
  }
  return true;
}

void LabelManagerSm::handleLabelRequestDir() {
  if (!active()) return;
  // Directory entries, and clients still listed that may have left the directory unseen.
  std::set<Zinc::Name> names;
  for (const Zinc::Name& name : labelRequestDir()->entryKeys()) names.insert(name);
  for (const Zinc::Name& name : client_->requestKeys()) names.insert(name);
  for (const Zinc::Name& name : names) handleLabelRequestDir(name);
}

void LabelManagerSm::handleLabelRequestDir(const Zinc::Name& name) {
  if (!active()) return;
  LMTRACE(8, " handle mpls/config/labelRequest/" << name);
  if (auto request = labelRequestDir()->entry<ClientLabelRequest>(name)) {
    LMTRACE(8, " creating client request, client: " << name);
    client_->requestIs(request);
  } else {
    LMTRACE(8, " deleting client request");
    client_->requestDel(name);
  }
}

void LabelManagerSm::handleLabelManagerClient() {
  if (!active()) return;
  for (const Zinc::Name& name : client_->requestKeys()) handleLabelManagerClient(name);
}

void LabelManagerSm::handleLabelManagerClient(const Zinc::Name& name) {
  if (!active()) return;
  LMTRACE(8, " client: " << name);
  ClientLabelRequest::PtrConst request = client_->request(name);
  clientRequestReactorIs(name, request);
  if (!allocValid_) return;  // no allocator: nothing is published
  if (request) {
    clientAdded(name, request);
  } else {
    clientRemoved(name);
  }
}

void LabelManagerSm::clientRequestReactorIs(const Zinc::Name& name,
                                            const ClientLabelRequest::PtrConst& req) {
  auto it = clientRequest_.find(name);
  if (!req) {
    if (it != clientRequest_.end()) clientRequest_.erase(it);
  } else if (it == clientRequest_.end() || it->second->notifier() != req) {
    clientRequest_[name] = std::make_unique<ClientRequestReactor>(this, req);
  }
}

void LabelManagerSm::clientAdded(const Zinc::Name& name,
                                 const ClientLabelRequest::PtrConst& request) {
  ZTRACE(1, "handleLabelManagerClient client added: " << name);
  pendingClientMount_.erase(name);
  auto alloc = status_->labelBlockAllocationIs(name);
  clientInfoIs(name);
  // Published ids first: this drops blocks whose request went while nobody was looking.
  for (const Zinc::Name& id : alloc->blockKeys()) handleLabelRequest(name, id);
  for (const Zinc::String& id : request->labelRequestKeys()) handleLabelRequest(name, id);
}

void LabelManagerSm::clientRemoved(const Zinc::Name& name) {
  ZTRACE(1, "handleLabelManagerClient client removed: " << name);
  if (pendingClientMount(name)) {
    ZTRACE(1, "handleLabelManagerClient defer pending client removal: " << name);
    return;
  }
  if (auto info = clientInfo(name)) {
    const bool published = status_->labelBlockAllocationHas(name);
    for (const Zinc::Name& id : info->blockIndexKeys()) {
      if (published) {
        removeLabelBlock(name, id);
      } else {
        releaseBlockIndex(name, id);
      }
    }
  }
  status_->labelBlockAllocationDel(name);
  clientInfoDel(name);
}

void LabelManagerSm::handleLabelRequest() {
  if (!active() || !allocValid_) return;
  for (const Zinc::Name& client : client_->requestKeys()) {
    auto request = client_->request(client);
    if (!request) continue;  // removed by an earlier request's handling
    for (const Zinc::String& id : request->labelRequestKeys()) handleLabelRequest(client, id);
  }
}

void LabelManagerSm::handleLabelRequest(const Zinc::Name& client, const Zinc::String& id) {
  if (!active() || !allocValid_) return;
  LMTRACE(8, " client: " << client << ", ID: " << id);
  ClientLabelRequest::PtrConst cltReq = client_->request(client);
  ZINC_ASSERT(cltReq, "no label request entity for client " + client.str());
  if (cltReq->labelRequest(id)) {
    allocateLabelBlock(client, id);
  } else {
    removeLabelBlock(client, id);
  }
}

void LabelManagerSm::allocateLabelBlock(const Zinc::Name& client, const Zinc::String& id) {
  LMTRACE(8, " client: " << client << ", ID: " << id << ", range exhausted: " << rangeExhausted());
  LabelBlockAllocation::Ptr alloc = status_->labelBlockAllocation(client);
  ZINC_ASSERT(alloc, "no label block allocation for client " + client.str());
  if (alloc->blockHas(id) && !blockIsValid(alloc->block(id))) {
    LMTRACE(1, " block for ID " << id << " is no longer valid.");
    alloc->blockDel(id);
  }
  LabelManagerClientInfo::Ptr cltInfo = clientInfo(client);
  ZINC_ASSERT(cltInfo, "no client info for client " + client.str());
  if (alloc->blockHas(id)) {
    LMTRACE(8, " ID " << id << " already fulfilled");
    const uint64_t start = alloc->block(id).blockStart().value();
    const uint64_t end = start + labelBlockSize;
    ZINC_ASSERT(start < end, "empty block");
    ZINC_ASSERT(start >= configRangeBase(), "block starts below the range");
    ZINC_ASSERT(end <= configRangeMax(), "block ends beyond the range");
    return;
  }
  if (republishRecordedBlock(client, id, *alloc, *cltInfo)) return;
  if (rangeExhausted()) {
    LMTRACE(0, " ID " << id << " could not be fulfilled.");
    requestBacklog_ = true;
    return;
  }
  const int64_t idx = drAlloc_->getNumber();
  ZINC_ASSERT(idx >= 0, "the allocator has no free number although the range is not exhausted");
  alloc->blockIs(id, LabelBlock(blockStart(idx)));
  cltInfo->blockIndexIs(id, uint32_t(idx));
  LMTRACE(1, " ID " << id << " was added, index: " << idx);
}

// A request whose published block was withdrawn (MPLS routing switched off and on) while
// the allocator kept its number gets that number's block again, instead of leaking it.
bool LabelManagerSm::republishRecordedBlock(const Zinc::Name& client, const Zinc::String& id,
                                            LabelBlockAllocation& alloc,
                                            LabelManagerClientInfo& info) {
  if (!info.blockIndexHas(id)) return false;
  const uint32_t idx = info.blockIndex(id);
  const LabelBlock block(Wire::MplsLabel(gridStart(idx)));
  if (drAlloc_->isReserved(idx) && !drAlloc_->isHeld(idx) && blockIsValid(block)) {
    alloc.blockIs(id, block);
    ZTRACE(1, "allocateLabelBlock ID " << id << " was added again, index: " << idx);
    return true;
  }
  releaseBlockIndex(client, id);
  return false;
}

void LabelManagerSm::removeLabelBlock(const Zinc::Name& client, const Zinc::String& id) {
  LMTRACE(8, " client: " << client << ", ID: " << id << ", range exhausted: " << rangeExhausted());
  LabelBlockAllocation::Ptr alloc = status_->labelBlockAllocation(client);
  ZINC_ASSERT(alloc, "no label block allocation for client " + client.str());
  alloc->blockDel(id);
  releaseBlockIndex(client, id);
}

void LabelManagerSm::releaseBlockIndex(const Zinc::Name& client, const Zinc::String& id) {
  LabelManagerClientInfo::Ptr cltInfo = clientInfo(client);
  ZINC_ASSERT(cltInfo, "no client info for client " + client.str());
  if (std::optional<uint32_t> idx = cltInfo->blockIndexDel(id)) {
    if (drAlloc_) drAlloc_->releaseNumber(*idx);
    ZTRACE(1, "removeLabelBlock ID " << id << " was removed, index: " << *idx);
  } else {
    ZTRACE(1, "removeLabelBlock ID " << id << " was removed (not allocated)");
  }
}

void LabelManagerSm::handleRangeExhausted() {
  if (!active()) return;
  LMTRACE(8, " backlog: " << requestBacklog_ << ", range exhausted: " << rangeExhausted());
  if (rangeExhausted() || !requestBacklog_) return;
  requestBacklog_ = false;
  handleLabelRequest();
}

}  // namespace Mpls
