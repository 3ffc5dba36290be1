// LfibStatus, LfibHwStatus and LfibDot1qTagToVlan: mounting, validation, dumps and release.
// The validation rules live here so that their assertion texts name this file ("MplsLfib:").
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <sstream>

#include "lfib/LfibStatus.h"
#include "zinc/Exception.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("MplsLfib");

namespace Mpls {

namespace {

// A metric is "0" when every one of its attributes is.
bool operator==(const RouteMetric& metric, int zero) {
  return zero == 0 && metric == RouteMetric();
}

}  // namespace

bool isEvpnViaType(LfibViaType viaType) {
  return viaType >= viaTypeIpLookup_ && viaType <= viaTypeEvpnVlanAwareFlood_;
}

// ---- LfibDot1qTagToVlan ----

LfibDot1qTagToVlan::LfibDot1qTagToVlan(const LfibDot1qTagToVlanKey& key)
    : Zinc::Entity(Zinc::Name(valueToStrep(key))), key_(key) {}

std::string LfibDot1qTagToVlan::stringValue() const {
  std::ostringstream os;
  os << "{";
  const char* sep = "";
  for (const auto& [tag, vlan] : dot1qTagToVlanIdColl()) {
    os << sep << tag.value() << ": " << vlan.value();
    sep = ", ";
  }
  os << "}";
  return os.str();
}

Zinc::Ptr<LfibDot1qTagToVlan> lfibDot1qTagToVlanFactory(const LfibDot1qTagToVlanKey& key) {
  return Zinc::makePtr<LfibDot1qTagToVlan>(key);
}

// ---- LfibStatus ----

LfibStatus::LfibStatus(const Zinc::Name& name) : Zinc::Entity(name) {
  zeroReferencesNotifieeIs(&zeroReferencesRelease_);
}

LfibStatus::~LfibStatus() { releaseTables(); }

void LfibStatus::ZeroReferencesRelease::onZeroReferences(const Zinc::PtrInterface* object) {
  const_cast<LfibStatus*>(static_cast<const LfibStatus*>(object))->releaseTables();
}

// The tables call back into this entity through a plain pointer; drop it before the entity
// goes so that nothing a table does during its own teardown reaches a dying entity.
void LfibStatus::releaseTables() {
#define MPLS_RELEASE_TABLE(attr, Attr, K, V, Table) attr##_->handleParent(nullptr);
  MPLS_LFIB_STATUS_TABLES(MPLS_RELEASE_TABLE)
#undef MPLS_RELEASE_TABLE
}

void LfibStatus::ledgerFlushKicks() {
#define MPLS_KICK_TABLE(attr, Attr, K, V, Table) attr##_->flushKicks();
  MPLS_LFIB_STATUS_TABLES(MPLS_KICK_TABLE)
#undef MPLS_KICK_TABLE
}

bool LfibStatus::ledgerInStep() const {
  bool inStep = true;
#define MPLS_IN_STEP(attr, Attr, K, V, Table) inStep = inStep && attr##_->inStep();
  MPLS_LFIB_STATUS_TABLES(MPLS_IN_STEP)
#undef MPLS_IN_STEP
  return inStep;
}

void LfibStatus::ledgerMountIs(Ledger::LedgerMode mode, const std::string& root, uint32_t capacity,
                               Zinc::Loop* loop) {
  mountedRoot_ = root;
  const std::string base = SharedMem::rootPath(root) + "/" + ledgerFolder();
  ZTRACE(1, "LfibStatus::ledgerMountIs() " << base);
  const CollectionControl control{true, mode, base, capacity, loop};
#define MPLS_MOUNT_TABLE(attr, Attr, K, V, Table) attr##ControlIs(expecting(control, #attr));
  MPLS_LFIB_STATUS_TABLES(MPLS_MOUNT_TABLE)
#undef MPLS_MOUNT_TABLE
}

CollectionControl LfibStatus::expecting(CollectionControl control, std::string_view attr) const {
  if (control.mode != Ledger::LedgerMode::writer) return control;
  if (attr == "lfibRoute" || attr == "viaSet") control.expected = expectedSize_.routes;
  if (attr == "mplsVia") control.expected = expectedSize_.mplsVias;
  return control;
}

void LfibStatus::ledgerUnmount() {
#define MPLS_UNMOUNT_TABLE(attr, Attr, K, V, Table) attr##ControlIs(CollectionControl{});
  MPLS_LFIB_STATUS_TABLES(MPLS_UNMOUNT_TABLE)
#undef MPLS_UNMOUNT_TABLE
}

bool LfibStatus::validateFiles() {
  bool ok = true;
#define MPLS_VALIDATE_TABLE(attr, Attr, K, V, Table) ok = attr##_->validateFiles() && ok;
  MPLS_LFIB_STATUS_TABLES(MPLS_VALIDATE_TABLE)
#undef MPLS_VALIDATE_TABLE
  return ok;
}

std::vector<std::pair<std::string, bool>> LfibStatus::validateEachTable() {
  std::vector<std::pair<std::string, bool>> out;
#define MPLS_VALIDATE_EACH(attr, Attr, K, V, Table) \
  out.emplace_back(attr##_->name(), attr##_->validateFiles());
  MPLS_LFIB_STATUS_TABLES(MPLS_VALIDATE_EACH)
#undef MPLS_VALIDATE_EACH
  return out;
}

uint64_t LfibStatus::ledgerBytes() const {
  uint64_t bytes = 0;
  std::error_code ec;
  const std::string base = SharedMem::rootPath(mountedRoot_) + "/" + ledgerFolder();
  for (auto it = std::filesystem::recursive_directory_iterator(base, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    struct stat st;
    if (it->is_regular_file(ec) && ::stat(it->path().c_str(), &st) == 0) {
      bytes += uint64_t(st.st_blocks) * 512;
    }
  }
  return bytes;
}

void LfibStatus::dumpState(std::ostream& context, int indent) const {
  char line[128];
  auto dump = [&](const char* plural, size_t count) {
    std::snprintf(line, sizeof(line), "%*c%s #%u\n", indent, ' ', plural,
                  static_cast<unsigned>(count));
    context << line;
  };
#define MPLS_DUMP_TABLE(attr, Attr, K, V, Table) dump(#attr "s", attr##Count());
  MPLS_LFIB_STATUS_TABLES(MPLS_DUMP_TABLE)
#undef MPLS_DUMP_TABLE
  dump("dot1qTagToVlanColls", dot1qTagToVlanCollCount());
}

// ---- validation ----

// Both read the element through <attr>Validated: right after a mutator's own write that is
// the value it wrote, not a decoded copy of it.
void LfibStatus::handleRoute(const RouteKey& key) const {
  std::unique_ptr<LfibRoute> scratch;
  const LfibRoute* stored = lfibRouteValidated(key, scratch);
  if (!stored) return;
  const LfibRoute& route = *stored;
  if (isEvpnViaType(route.viaSetKey().viaType())) {
    ZINC_ASSERT(route.metric() == 0, "EVPN lfib routes must have metric set to 0");
  }
}

void LfibStatus::handleViaSet(const LfibViaSetKey& key) const {
  std::unique_ptr<LfibViaSet> scratch;
  const LfibViaSet* stored = viaSetValidated(key, scratch);
  if (!stored) return;
  const LfibViaSet& vs = *stored;
  const LfibViaType viaType = key.viaType();
  for (uint32_t i = 0; i < vs.viaKeys(); ++i) {
    const LfibViaType viaKeyType = vs.viaKey(LfibViaIndexRange(i)).viaType();
    ZINC_ASSERT(viaKeyType == viaType, "Vias in a viaSet must always be homogeneous");
  }
  if (isEvpnViaType(viaType)) {
    ZINC_ASSERT(vs.viaKeys() <= 1, "EVPN via sets must contain at most 1 via key");
  }
}

#define MPLS_VERIFY_VIA_TYPE(Type)                                                        \
  void LfibStatus::verifyViaType##Type(const LfibViaKey& key) const {                     \
    ZINC_ASSERT(key.viaType() == viaType##Type##_, "via key and via coll type mismatch"); \
  }
MPLS_VERIFY_VIA_TYPE(MplsIp)
MPLS_VERIFY_VIA_TYPE(MplsPseudowire)
MPLS_VERIFY_VIA_TYPE(IpLookup)
MPLS_VERIFY_VIA_TYPE(Vlan)
MPLS_VERIFY_VIA_TYPE(EvpnVlanAware)
MPLS_VERIFY_VIA_TYPE(EvpnEthernetSegment)
MPLS_VERIFY_VIA_TYPE(EvpnVlanFlood)
MPLS_VERIFY_VIA_TYPE(EvpnVlanAwareFlood)
MPLS_VERIFY_VIA_TYPE(ExternalFec)
#undef MPLS_VERIFY_VIA_TYPE

Zinc::Ptr<LfibStatus> lfibStatusFactory(const Zinc::Name& name) {
  return Zinc::makePtr<LfibStatus>(name);
}

// ---- LfibHwStatus ----

LfibHwStatus::~LfibHwStatus() {
#define MPLS_RELEASE_TABLE(attr, Attr, K, V, Table) attr##_->handleParent(nullptr);
  MPLS_LFIB_HW_STATUS_TABLES(MPLS_RELEASE_TABLE)
#undef MPLS_RELEASE_TABLE
}

void LfibHwStatus::ledgerMountIs(Ledger::LedgerMode mode, const std::string& root,
                                 uint32_t capacity, Zinc::Loop* loop) {
  const std::string base = SharedMem::rootPath(root) + "/" + ledgerFolder();
  const CollectionControl control{true, mode, base, capacity, loop};
#define MPLS_MOUNT_TABLE(attr, Attr, K, V, Table) attr##ControlIs(control);
  MPLS_LFIB_HW_STATUS_TABLES(MPLS_MOUNT_TABLE)
#undef MPLS_MOUNT_TABLE
}

Zinc::Ptr<LfibHwStatus> lfibHwStatusFactory(const Zinc::Name& name) {
  return Zinc::makePtr<LfibHwStatus>(name);
}

}  // namespace Mpls
