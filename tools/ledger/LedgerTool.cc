#include "tools/ledger/LedgerTool.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string_view>
#include <thread>

#include "ledger/BucketReader.h"
#include "ledger/Exceptions.h"
#include "ledger/RallyReader.h"
#include "ledger/Shape.h"
#include "ledger/SlotReaderTable.h"
#include "ledger/SlotTable.h"
#include "ledger/ValidatorText.h"
#include "lfib/LfibStoredText.h"
#include "platform/shm/EmberFile.h"
#include "platform/shm/ReaderKick.h"
#include "tools/Digits.h"
#include "zinc/Loop.h"

namespace LedgerTool {

namespace {

using namespace Ledger;

constexpr int kOk = 0;
constexpr int kInvalid = 1;
constexpr int kUsage = 2;
constexpr int kUnsettled = 3;  // validate: the table never held still long enough

const char* const kUsageText =
    "usage: ledger [--root DIR] COMMAND [TABLE] [options]\n"
    "\n"
    "Looks at the shared-memory tables under DIR (default: $LEDGER_ROOT, else /dev/shm/ledger).\n"
    "A table in a folder below DIR is named by its path, as ls prints it (lfib/main/viaSet).\n"
    "The tool only reads; it never takes the writer's lock.\n"
    "\n"
    "commands:\n"
    "  ls               tables under DIR and its folders, with their size, members and\n"
    "                   whether their writer is alive\n"
    "  show TABLE       header fields, counters, bucket and change-queue state\n"
    "  validate TABLE   structural check of slots, chains, free list and change queue;\n"
    "                   exit status 0 when valid, 1 when not, 3 when the writer kept\n"
    "                   changing it during every check\n"
    "  dump TABLE       every entry, typed for the LFIB's records, else as raw hex;\n"
    "                   --json for JSON\n"
    "  watch TABLE      follows the table and prints one line per added, changed or deleted\n"
    "                   entry as it happens; --count N stops after N lines\n"
    "\n"
    "Run 'ledger COMMAND --help' for one command. Exit status 1: a table that is corrupt or\n"
    "cannot be read; 2: usage error, or no such table.\n";

const std::map<std::string, std::string> kCommandHelp = {
    {"ls",
     "usage: ledger [--root DIR] ls\n  One line per table under DIR and its folders: its "
     "path, numSlots, members, value size, bytes in shared memory, writer pid and whether "
     "it is alive, value type.\n"},
    {"show",
     "usage: ledger [--root DIR] show TABLE\n  Slot header fields, bucket count and "
     "resize sequence, change-queue generation, count, capacity, sequences, corral, "
     "writer and registered readers.\n"},
    {"validate",
     "usage: ledger [--root DIR] validate TABLE [--once]\n  Checks the slot header, the free "
     "list, every chain (bounds, cycles, OCCUPIED, stuck LOOKASIDE, bucket and "
     "rhash order), the counts and the change queue. Exit 0 when valid, 1 with the "
     "first failure. A failure counts when the table stays unchanged until some time "
     "after the check (up to 0.6 s while its writer lives); one seen while the writer "
     "changed the table is checked again, and exit 3 says it changed during each of 5 "
     "checks. --once: one check, no waiting (a table known to be at rest).\n"},
    {"dump",
     "usage: ledger [--root DIR] dump TABLE [--json]\n  Every occupied slot, read "
     "consistently: slot, version, rhash and the stored value, as text for the LFIB's "
     "record types and in hex for others.\n"},
    {"watch",
     "usage: ledger [--root DIR] watch TABLE [--count N]\n  Follows the table's change "
     "queue and prints 'added', 'changed' or 'deleted' with the slot and value for "
     "each entry as it changes; unchanged rewrites print nothing. Stops after N lines "
     "when --count is given.\n"},
};

struct Options {
  std::string root;  // the folder that holds the table (see resolveFolder)
  std::string command;
  std::string table;  // its name in that folder
  std::string name;   // the table as given, a path below the root given (messages say this)
  std::string top;    // the root given
  bool json = false;
  bool help = false;
  bool once = false;  // validate: one check, no waiting for a live writer
  uint64_t count = 0;
  bool countGiven = false;
};

std::optional<Options> parse(const std::vector<std::string>& args, std::ostream& err) {
  Options o;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&]() -> std::optional<std::string> {
      if (i + 1 < args.size()) return args[++i];
      err << "ledger: " << a << " needs a value\n";
      return std::nullopt;
    };
    if (a == "--help" || a == "-h") {
      o.help = true;
    } else if (a == "--json") {
      o.json = true;
    } else if (a == "--once") {
      o.once = true;
    } else if (a == "--root") {
      auto v = value();
      if (!v) return std::nullopt;
      o.root = *v;
    } else if (a == "--count") {
      auto v = value();
      if (!v) return std::nullopt;
      const auto count = Tools::digitsOf<uint64_t>(*v);
      if (!count || *count == 0) {
        err << "ledger: --count wants a number of lines (1 or more), not '" << *v << "'\n";
        return std::nullopt;
      }
      o.count = *count;
      o.countGiven = true;
    } else if (a.rfind("--", 0) == 0) {
      err << "ledger: unknown option " << a << "\n";
      return std::nullopt;
    } else if (o.command.empty()) {
      o.command = a;
    } else if (o.table.empty()) {
      o.table = a;
    } else {
      err << "ledger: unexpected argument " << a << "\n";
      return std::nullopt;
    }
  }
  return o;
}

std::string hex(const uint8_t* p, size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string s(2 * n, '0');
  for (size_t i = 0; i < n; ++i) {
    s[2 * i] = digits[p[i] >> 4];
    s[2 * i + 1] = digits[p[i] & 15];
  }
  return s;
}

std::string hex32(uint32_t v) {
  std::ostringstream os;
  os << "0x" << std::hex << std::setw(8) << std::setfill('0') << v;
  return os.str();
}

// A pid from the table's files: 0 and values beyond pid_t's range (which kill() would take
// for process groups, or for every process) are nobody.
bool writerAlive(uint32_t pid) {
  if (pid == 0 || pid > uint32_t(std::numeric_limits<pid_t>::max())) return false;
  return ::kill(pid_t(pid), 0) == 0 || errno == EPERM;
}

// The slabs of a table whose values live out of line: every consistent read of a slot copies
// the payload it refers to, as [uint32 size][payload].
struct SlabCopier final : OutOfLineReader {
  Shape::ReaderAllocator slabs;
  bool copyOut(uint8_t* stored, std::string& why) override {
    return slabs.copyReferenced(stored, Shape::kMaxPayload, why);
  }
};

// The mapped files of one table; what could not be opened is left out with a reason.
struct Table {
  SlotReaderTable slots;
  BucketReader buckets;
  RallyReader rally;
  std::unique_ptr<SlabCopier> slabs;  // slab tables only
  std::string bucketError;
  std::string rallyError;

  // Bytes of a buffer that holds one consistent read.
  size_t readSize() const {
    return slabs ? sizeof(uint32_t) + Shape::kMaxPayload : slots.valueSize();
  }
  // The value bytes of a consistent read in `stored`.
  std::pair<const uint8_t*, size_t> valueOf(const std::vector<uint8_t>& stored) const {
    if (!slabs) return {stored.data(), stored.size()};
    uint32_t size;
    std::memcpy(&size, stored.data(), sizeof(size));
    return {stored.data() + sizeof(size), std::min<size_t>(size, Shape::kMaxPayload)};
  }
};

bool isSlabTable(const SlotReaderTable& slots) {
  return SlotTable::typeName(slots.header().classTypeName).rfind("Ledger::SlabTable<", 0) == 0;
}

void attachSlabs(const Options& o, Table& t) {
  if (!isSlabTable(t.slots)) return;
  if (!t.slabs) t.slabs = std::make_unique<SlabCopier>();
  t.slabs->slabs.attach(o.root, o.table, t.slots.emberId());
  t.slots.outOfLineIs(t.slabs.get());
}

// Bytes that the files of a table take in shared memory (allocated blocks), slabs included.
uint64_t tableBytes(const Options& o, const std::string& table) {
  std::string dir = SharedMem::rootPath(o.root) + "/" + table;
  uint64_t bytes = 0;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (dirent* e = ::readdir(d)) {
      struct stat st;
      if (::stat((dir + "/" + e->d_name).c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
        bytes += uint64_t(st.st_blocks) * 512;
      }
    }
    ::closedir(d);
  }
  return bytes;
}

// Maps a table's files; on failure writes why and returns the exit status to use.
int open(const Options& o, Table& t, std::ostream& err) {
  if (o.table.empty()) {
    err << "ledger " << o.command << ": which table? (ledger " << o.command << " TABLE)\n";
    return kUsage;
  }
  if (!SharedMem::validName(o.table)) {
    err << "ledger: bad table name '" << o.name << "'\n";
    return kUsage;
  }
  if (!SharedMem::EmberFile::exists(o.root, o.table, "slots")) {
    err << "ledger: no table '" << o.name << "' under " << o.top << "\n";
    return kUsage;
  }
  try {
    t.slots.attach(o.root, o.table);
  } catch (const Zinc::Exception& e) {
    err << "ledger: table '" << o.name << "' is unreadable: " << e.what() << "\n";
    return kInvalid;
  }
  attachSlabs(o, t);
  try {
    t.buckets.attach(o.root, o.table, t.slots.emberId());
  } catch (const Zinc::Exception& e) {
    t.bucketError = e.what();
  }
  try {
    t.rally.attach(o.root, o.table, t.slots.emberId());
  } catch (const Zinc::Exception& e) {
    t.rallyError = e.what();
  }
  return kOk;
}

int readersRegistered(const Options& o) {
  std::string dir = Mem::readersDir(SharedMem::rootPath(o.root) + "/" + o.table);
  int n = 0;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (dirent* e = ::readdir(d)) n += std::strstr(e->d_name, ".sock") != nullptr;
    ::closedir(d);
  }
  return n;
}

// A table named by its path below the root ("lfib/main/viaSet"): the root becomes the folder
// that holds it and the table its last name. False after saying why when a part of the path
// is not a valid name.
bool resolveFolder(Options& o, std::ostream& err) {
  o.name = o.table;
  o.top = SharedMem::rootPath(o.root);
  const size_t slash = o.table.rfind('/');
  if (slash == std::string::npos) return true;
  std::string folder = o.top;
  std::istringstream parts(o.table.substr(0, slash));
  for (std::string part; std::getline(parts, part, '/');) {
    if (!SharedMem::validName(part)) {
      err << "ledger: bad table name '" << o.table << "'\n";
      return false;
    }
    folder += "/" + part;
  }
  o.root = folder;
  o.table = o.table.substr(slash + 1);
  return true;
}

// Tables below `root`, by their paths from it: the folders that hold a slot file. Neither
// links nor hidden folders are followed, nor the folders inside a table (its readers').
// `ec` tells why the root itself could not be read.
std::vector<std::string> tablesUnder(const std::string& root, std::error_code& ec) {
  namespace fs = std::filesystem;
  constexpr int kMaxDepth = 8;
  std::vector<std::string> names;
  fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
  if (ec) return names;
  for (std::error_code walk; !walk && it != fs::recursive_directory_iterator();
       it.increment(walk)) {
    const fs::path& path = it->path();
    if (!fs::is_directory(it->symlink_status()) || path.filename().string()[0] == '.') {
      it.disable_recursion_pending();
      continue;
    }
    std::error_code statError;
    if (fs::is_regular_file(fs::symlink_status(path / "slots", statError))) {
      names.push_back(path.lexically_relative(root).string());
      it.disable_recursion_pending();
    } else if (it.depth() + 1 >= kMaxDepth) {
      it.disable_recursion_pending();
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

int ls(const Options& o, std::ostream& out, std::ostream& err) {
  const std::string root = SharedMem::rootPath(o.root);
  std::error_code ec;
  const std::vector<std::string> names = tablesUnder(root, ec);
  if (ec) {
    err << "ledger: cannot read root " << root << ": " << ec.message() << "\n";
    return kUsage;
  }
  int nameWidth = 24;
  for (const auto& name : names) nameWidth = std::max(nameWidth, int(name.size()) + 2);
  out << std::left << std::setw(nameWidth) << "TABLE" << std::setw(10) << "SLOTS" << std::setw(10)
      << "MEMBERS" << std::setw(8) << "VALUE" << std::setw(12) << "BYTES" << std::setw(12)
      << "WRITER"
      << "TYPE\n";
  for (const auto& name : names) {
    Options one = o;
    one.table = name;
    Table t;
    std::ostringstream why;
    if (!resolveFolder(one, why) || open(one, t, why) != kOk) {
      out << std::setw(nameWidth) << name << "unreadable: " << why.str();
      continue;
    }
    uint32_t pid = t.rally.writerPid();
    std::string writer = pid ? std::to_string(pid) + (writerAlive(pid) ? "" : "(dead)") : "-";
    out << std::setw(nameWidth) << name << std::setw(10) << t.slots.numSlots() << std::setw(10)
        << t.slots.occupiedSlots() << std::setw(8) << t.slots.valueSize() << std::setw(12)
        << tableBytes(one, one.table) << std::setw(12) << writer
        << SlotTable::typeName(t.slots.header().valueTypeName) << "\n";
  }
  return kOk;
}

void showSlabs(Table& t, std::ostream& out) {
  for (uint32_t c = 0; c < Shape::kNumClasses; ++c) {
    std::string why;
    const Shape::SlabReader* slab = t.slabs->slabs.slab(c, why);
    out << "slab." << c << ": ";
    if (!slab) {
      out << why << "\n";
      continue;
    }
    const Shape::SlabHeader& h = slab->header();
    out << "maxPayload " << h.maxPayload << " numEntries " << h.numEntries << " numOccupied "
        << h.numOccupied << " mappedBytes " << slab->mappedSize() << "\n";
  }
}

// The queue's count, or why it cannot be one (beyond the queue's capacity).
std::string queueCountText(const Table& t) {
  try {
    return std::to_string(t.rally.queueCount());
  } catch (const CorruptionException& e) {
    return std::string("corrupt: ") + e.what();
  }
}

int show(const Options& o, std::ostream& out, std::ostream& err) {
  Table t;
  if (int rc = open(o, t, err)) return rc;
  out << "table: " << o.name << "\npath: " << t.slots.path() << "\n"
      << SlotTable::describe(t.slots.header()) << "mappedBytes: " << t.slots.mappedSize() << "\n";
  if (t.buckets.attached()) {
    out << "numBuckets: " << t.buckets.headerNumBuckets()
        << "\nbucketResizeSeq: " << t.buckets.seqBegin() << "\n";
  } else {
    out << "buckets: " << t.bucketError << "\n";
  }
  if (t.rally.attached()) {
    auto [corralStart, corralEnd] = t.rally.corral();
    uint32_t pid = t.rally.writerPid();
    out << "rallyGeneration: " << t.rally.generation()
        << "\nrallyIncarnation: " << t.rally.incarnation()
        << "\nrallyLatestSeq: " << t.rally.writerSeq() << "\nrallyCount: " << queueCountText(t)
        << "\nrallyCapacity: " << t.rally.queueCapacity()
        << "\nrallyBaseSeq: " << t.rally.queueBaseSeq()
        << "\nrallySlotCapacity: " << t.rally.slotCapacity() << "\ncorral: " << corralStart << ".."
        << corralEnd << "\nwriterPid: " << pid
        << "\nwriterAlive: " << (writerAlive(pid) ? "yes" : "no") << "\n";
  } else {
    out << "rally: " << t.rallyError << "\n";
  }
  if (t.slabs) showSlabs(t, out);
  out << "bytes: " << tableBytes(o, o.table) << "\n";
  out << "readers: " << readersRegistered(o) << "\n";
  return kOk;
}

// A read-only structural check; returns the first failure, or nothing.
class Check {
 public:
  explicit Check(Table& t) : t_(t), n_(t.slots.numSlots()) {}

  std::string run() {
    if (n_ > t_.slots.mappedSlots()) return "SlotTable::Header::validate() bad shmem size:";
    if (!t_.bucketError.empty()) return t_.bucketError;
    if (!t_.rallyError.empty()) return t_.rallyError;
    if (auto e = readUnsettledTail(); !e.empty()) return e;
    seen_.assign(n_, 0);
    if (auto e = walkFreeSlots(); !e.empty()) return e;
    if (auto e = walkOccupiedSlots(); !e.empty()) return e;
    if (free_ + walked_ != n_) {
      return ValidatorText::badSlotCount(free_, walked_, n_);
    }
    if (t_.slabs) {
      if (auto e = checkSlabs(); !e.empty()) return e;
    }
    return checkRally();
  }

 private:
  std::string walkFreeSlots() {
    for (uint32_t i = t_.slots.header().freeListHead; i != kNoSlot;) {
      if (i >= n_) {
        return ValidatorText::freeOutOfBound(i);
      }
      if (seen_[i]) return ValidatorText::freeTwice(i);
      seen_[i] = 1;
      const SlotHeader& s = t_.slots.slot(i);
      if (s.status & kOccupied) {
        return ValidatorText::freeNotEmpty(i);
      }
      ++free_;
      i = linkOf(s.linkPair);
    }
    return {};
  }

  std::string walkOccupiedSlots() {
    const uint32_t nb = t_.buckets.numBuckets();
    for (uint32_t b = 0; b < nb; ++b) {
      uint32_t lastRhash = 0;
      for (uint32_t link = linkOf(t_.buckets.head(b)); !isEndOfChain(link);) {
        if (link >= n_) return ValidatorText::badLink(link, b);
        if (seen_[link]) return ValidatorText::slotTwice(link);
        seen_[link] = 2;
        const SlotHeader& s = t_.slots.slot(link);
        if (!(s.status & kOccupied)) {
          return ValidatorText::notOccupied(s.status, link);
        }
        if (s.status & kLookaside) {
          return ValidatorText::stuckLookaside(s.status, link);
        }
        if ((reverseBits(s.rhash) & (nb - 1)) != b) return ValidatorText::corruptRhash(link, b);
        if (s.rhash < lastRhash) return ValidatorText::outOfOrder(link, b);
        lastRhash = s.rhash;
        if (auto e = checkNotified(link); !e.empty()) return e;
        ++walked_;
        link = linkOf(s.linkPair);
      }
    }
    uint32_t occupied = t_.slots.occupiedSlots();
    if (walked_ > occupied) {
      return ValidatorText::walkedTooMany(walked_, occupied);
    }
    if (walked_ != occupied) {
      return ValidatorText::occupiedMismatch(occupied, walked_);
    }
    return {};
  }

  // Every occupied slot refers to its own slab entry in use, and no other entry is in use.
  std::string checkSlabs() {
    std::array<std::vector<bool>, Shape::kNumClasses> referenced;
    for (uint32_t i = 0; i < n_; ++i) {
      if (seen_[i] != 2) continue;
      Shape::Offset o;
      std::memcpy(&o, t_.slots.value(i), sizeof(o));
      if (!o.valid() || o.sizeClass() >= Shape::kNumClasses) {
        return ValidatorText::noStoredValue(i);
      }
      if (auto e = markReferenced(i, o, referenced[o.sizeClass()]); !e.empty()) return e;
    }
    for (uint32_t c = 0; c < Shape::kNumClasses; ++c) {
      std::string why;
      const Shape::SlabReader* slab = t_.slabs->slabs.slab(c, why);
      if (!slab && referenced[c].empty()) continue;
      if (!slab) return why;
      if (auto e = slab->check(&referenced[c]); !e.empty()) return ValidatorText::storage(e);
    }
    return {};
  }

  // Marks the slab entry that slot `slot` refers to in `marks`, one mark per entry of its slab
  // (sized on the first reference): the slab's own count of entries, as far as its file holds
  // them, bounds the references and the marks alike.
  std::string markReferenced(uint32_t slot, Shape::Offset o, std::vector<bool>& marks) {
    if (marks.empty()) {
      std::string why;
      Shape::SlabReader* slab = t_.slabs->slabs.slab(o.sizeClass(), why);
      if (!slab) return why;
      const uint32_t entries = slab->header().numEntries;
      if (entries > slab->mappedEntries()) slab->doResize();  // a writer grew it since
      marks.assign(std::min(entries, slab->mappedEntries()), false);
    }
    if (o.index() >= marks.size()) {
      return ValidatorText::storage("slot " + std::to_string(slot) + " refers to slab." +
                                    std::to_string(o.sizeClass()) + " entry " +
                                    std::to_string(o.index()) + " beyond its " +
                                    std::to_string(marks.size()) + " entries");
    }
    if (marks[o.index()]) {
      return ValidatorText::storage(Shape::referencedTwice(o.sizeClass(), o.index()));
    }
    marks[o.index()] = true;
    return {};
  }

  // The writer settles its queue in batches: in the tail it has not settled yet a slot may
  // still have its older entry live, and its position may name that entry, or none.
  std::string readUnsettledTail() {
    settled_ = t_.rally.queueSettled();
    const uint32_t count = t_.rally.queueCount();
    if (settled_ > count || count - settled_ > kSettleBatch) {
      return ValidatorText::unsettled(settled_, count);
    }
    for (uint32_t pos = settled_; pos < count; ++pos) {
      const uint32_t word = t_.rally.entryAt(pos).slotWord;
      if (!(word & kTombstone)) unsettled_.push_back(word);
    }
    std::sort(unsettled_.begin(), unsettled_.end());
    return {};
  }

  std::string checkNotified(uint32_t slot) {
    if (slot >= t_.rally.slotCapacity()) {
      return ValidatorText::rallySlotOutOfRange(slot, t_.rally.slotCapacity());
    }
    if (std::binary_search(unsettled_.begin(), unsettled_.end(), slot)) return {};
    uint32_t pos = t_.rally.positionOf(slot);
    if (pos == kNoPosition) {
      return ValidatorText::noNotification(slot);
    }
    if (pos >= t_.rally.queueCount()) return ValidatorText::badRallyIndex(slot, pos);
    if (t_.rally.entryAt(pos).slotWord != slot) return ValidatorText::rallyPositionTaken(slot, pos);
    return {};
  }

  std::string checkRally() {
    auto [start, end] = t_.rally.corral();
    if (start != end) {
      return ValidatorText::corralOpen(start, end);
    }
    const uint64_t base = t_.rally.queueBaseSeq();
    if (base > t_.rally.writerSeq()) {
      return ValidatorText::baseBeyondLatest(base, t_.rally.writerSeq());
    }
    uint64_t last = base;
    for (uint32_t pos = 0; pos < t_.rally.queueCount(); ++pos) {
      RallyEntry e = t_.rally.entryAt(pos);
      if (e.sequence == base) {
        return ValidatorText::offsetZero(pos, base);
      }
      if (e.sequence <= last || e.sequence > t_.rally.writerSeq()) {
        return ValidatorText::outOfSequence(pos, e.sequence);
      }
      last = e.sequence;
      const uint32_t slot = e.slotWord & ~kTombstone;
      if (slot >= t_.rally.slotCapacity()) return ValidatorText::entrySlotOutOfRange(pos, slot);
      if (pos >= settled_) continue;  // positions are recorded as the queue is settled
      const bool live = !(e.slotWord & kTombstone);
      const uint32_t position = t_.rally.positionOf(slot);
      if (live && position != pos) return ValidatorText::wrongRallySlot(pos, position, slot);
      if (!live && position == pos) return ValidatorText::activeTombstone(pos, slot);
    }
    // Every recorded position names its slot's own entry.
    for (uint32_t slot = 0; slot < t_.rally.slotCapacity(); ++slot) {
      const uint32_t pos = t_.rally.positionOf(slot);
      if (pos != kNoPosition &&
          (pos >= t_.rally.queueCount() || t_.rally.entryAt(pos).slotWord != slot)) {
        return ValidatorText::notLiveNotification(slot, pos);
      }
    }
    return {};
  }

  Table& t_;
  const uint32_t n_;
  std::vector<uint8_t> seen_;
  uint32_t settled_ = 0;
  std::vector<uint32_t> unsettled_;  // slots with a live entry in the unsettled tail, sorted
  uint32_t free_ = 0;
  uint32_t walked_ = 0;
};

// What a writer changes as it publishes: the newest change sequence (every write and remove
// ends by announcing one), the bucket table's resize sequence and the slot header's counts.
// A check between two equal stamps, a little apart, looked at a table at rest.
struct ChangeStamp {
  uint64_t sequence = 0;
  uint32_t bucketResizes = 0;
  uint32_t emberId = 0;
  uint32_t numSlots = 0;
  uint32_t occupiedSlots = 0;
  uint32_t freeListHead = 0;
  bool operator==(const ChangeStamp&) const = default;
};

ChangeStamp stampOf(const Table& t) {
  const SlotTableHeader& h = t.slots.header();
  return {t.rally.attached() ? t.rally.writerSeq() : 0,
          t.buckets.attached() ? t.buckets.seqBegin() : 0,
          Shm::load(h.emberId, std::memory_order_acquire),
          Shm::load(h.numSlots, std::memory_order_acquire),
          Shm::load(h.occupiedSlots, std::memory_order_acquire),
          Shm::load(h.freeListHead, std::memory_order_acquire)};
}

// A live writer changes the table under the check, which then sees half-made changes. A
// failure counts only when the table stays as it was before the check until some time after
// it: long enough for a write in progress to end, even in a writer that the system has
// descheduled in the middle of one (a dead writer's half-made change stays). Otherwise the
// table is mapped again and checked again, up to kValidateAttempts times.
constexpr int kValidateAttempts = 5;

bool changesSoon(const Table& t, const ChangeStamp& before) {
  using std::chrono::milliseconds;
  for (milliseconds wait{5}; wait <= milliseconds{320}; wait *= 2) {
    std::this_thread::sleep_for(wait);
    if (stampOf(t) != before) return true;
    if (!t.rally.attached() || !writerAlive(t.rally.writerPid())) return false;
  }
  return false;
}

// One check: the first failure, or nothing. What the table's bytes make a lower layer throw
// is a failure too, to be judged like the others.
std::string checkTable(Table& t) {
  try {
    return Check(t).run();
  } catch (const std::exception& e) {
    return e.what();
  }
}

int validate(const Options& o, std::ostream& out, std::ostream& err) {
  std::string failure;
  for (int attempt = 1; attempt <= kValidateAttempts; ++attempt) {
    Table t;
    std::ostringstream why;
    if (const int rc = open(o, t, why)) {
      // A writer growing the slot file changes its header under us: look again shortly.
      if (rc == kInvalid && !o.once && attempt < kValidateAttempts) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        continue;
      }
      err << why.str();
      if (rc == kInvalid) {
        out << "Validator::validate() Ledger " << o.name << " validation failed: header\n";
      }
      return rc;
    }
    const ChangeStamp before = stampOf(t);
    failure = checkTable(t);
    if (failure.empty()) {
      out << o.name << ": valid, " << t.slots.occupiedSlots() << " members in "
          << t.slots.numSlots() << " slots\n";
      return kOk;
    }
    if (o.once || !changesSoon(t, before)) {
      out << "Validator::validate() Ledger " << o.name << " validation failed: " << failure << "\n";
      return kInvalid;
    }
  }
  out << "ledger validate: " << o.name
      << ": no verdict, the writer changed the table during each of " << kValidateAttempts
      << " checks (the last one found: " << failure << ")\n";
  return kUnsettled;
}

// Bytes of the well-formed UTF-8 character that `text` starts with (its first byte 0x80 or
// above), or 0 when it starts none: a stray continuation byte, an overlong form, a surrogate,
// a code point beyond U+10FFFF, a character cut short.
size_t utf8Length(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  const size_t n = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  // The second byte's range excludes the overlong forms, surrogates and what is too large.
  const unsigned char low = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
  const unsigned char high = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
  if (lead < 0xc2 || lead > 0xf4 || text.size() < n || byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < n; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xbf) return 0;
  }
  return n;
}

// The contents of a JSON string holding `text`, valid JSON whatever its bytes: quotes and
// backslashes escaped, control characters as \u00XX, well-formed UTF-8 as it is. A table's
// name or a record's text may hold any bytes; one that is no part of well-formed UTF-8 cannot
// go out raw, and is written as \u00XX of its value (the character of that number).
std::string jsonEscaped(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    const size_t n = c < 0x80 ? 1 : utf8Length(text.substr(i));
    if (n == 0 || c < 0x20) {
      char escaped[7];
      std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
      out += escaped;
    } else {
      if (c == '"' || c == '\\') out += '\\';
      out.append(text.substr(i, n));
    }
    i += std::max<size_t>(n, 1);
  }
  return out;
}

// One entry of `ledger dump`: typed when its record type is known (lfib/LfibStoredText.h),
// as hex otherwise; `first` for the first of a JSON list.
void printEntry(const Options& o, std::ostream& out, const Table& t, uint32_t slot, uint32_t status,
                uint32_t rhash, const std::vector<uint8_t>& stored, bool first) {
  const auto [bytes, size] = t.valueOf(stored);
  std::optional<std::string> text =
      Mpls::storedValueText(SlotTable::typeName(t.slots.header().valueTypeName), bytes, size);
  if (o.json) {
    out << (first ? "\n" : ",\n") << "  {\"slot\": " << slot << ", \"version\": " << (status >> 2)
        << ", \"rhash\": \"" << hex32(rhash) << "\", \"value\": \"" << hex(bytes, size) << "\"";
    if (text) out << ", \"text\": \"" << jsonEscaped(*text) << "\"";
    out << "}";
  } else {
    out << "slot " << slot << " version " << (status >> 2) << " rhash " << hex32(rhash) << " "
        << (text ? *text : hex(bytes, size)) << "\n";
  }
}

int dump(const Options& o, std::ostream& out, std::ostream& err) {
  Table t;
  if (int rc = open(o, t, err)) return rc;
  std::vector<uint8_t> stored(t.readSize());
  const uint32_t n = std::min(t.slots.numSlots(), t.slots.mappedSlots());
  if (o.json) {
    out << "{\"table\": \"" << jsonEscaped(o.name) << "\", \"valueSize\": " << t.slots.valueSize()
        << ", \"entries\": [";
  }
  uint32_t shown = 0;
  for (uint32_t i = 0; i < n; ++i) {
    uint32_t rhash = 0, status = 0;
    try {
      if (t.slots.read(i, stored.data(), &rhash, &status) != SlotReaderTable::Read::occupied) {
        continue;
      }
    } catch (const CorruptionException& e) {
      err << "ledger dump: slot " << i << ": " << e.what() << "\n";
      continue;
    }
    printEntry(o, out, t, i, status, rhash, stored, shown++ == 0);
  }
  if (o.json) out << (shown == 0 ? "" : "\n") << "]}\n";
  // Slots read one at a time may disagree with the header while a writer works; otherwise
  // the table is damaged, and the engineer should know that the dump is not all of it.
  if (const uint32_t members = t.slots.occupiedSlots(); shown != members) {
    err << "ledger dump: " << shown << " entries shown, but the header counts " << members
        << " members: the writer changed the table meanwhile, or it is corrupt (ledger validate "
        << o.name << ")\n";
  }
  return kOk;
}

// Follows a table by slot: what each slot held last (rhash and bytes), compared when the
// change queue names it. A table that cannot be mapped whole again is left unmapped (nothing
// walks it) and tried again on every kick and every second until it can.
class Watcher {
 public:
  Watcher(const Options& o, Table& t, std::ostream& out) : o_(o), t_(t), out_(out) {}

  int run() {
    kick_ = std::make_unique<Mem::ReaderKickListener>(tableDir());
    t_.rally.skipToEnd();
    for (uint32_t i = 0, n = slotsToLook(); i < n; ++i) look(i, false);
    out_ << "watching " << o_.name << ": " << t_.slots.occupiedSlots() << " entries, sequence "
         << t_.rally.lastSeq() << std::endl;
    kick_->watchOn(loop_, [this] { follow(); });
    loop_.timerEvery(std::chrono::seconds(1), [this] { check(); });
    if (!done()) loop_.run();
    kick_->unwatch(loop_);
    return kOk;
  }

 private:
  struct Last {
    bool occupied = false;
    uint32_t rhash = 0;
    std::vector<uint8_t> bytes;
  };

  bool done() const { return o_.count && lines_ >= o_.count; }
  std::string tableDir() const { return SharedMem::rootPath(o_.root) + "/" + o_.table; }

  // A kick: the changes that the queue names since the last one.
  void follow() {
    if (!attached()) {
      reattach();
    } else {
      const auto result = t_.rally.handleAck([&](uint32_t slot, uint64_t) { look(slot, true); });
      if (result == RallyReader::Result::resync) {
        resync(t_.rally.incarnationChanged() ? "writer re-attached" : "queue out of step");
      } else if (result == RallyReader::Result::corrupt) {
        resync("corruption: " + t_.rally.corruption());
      }
    }
    out_.flush();
    if (done()) loop_.stop();
  }

  // Every second: what no kick may tell. A writer that re-attached tells us so with its first
  // kick; a table removed and made anew has new files, whose writer may not know us.
  void check() {
    if (attached() && slotFileReplaced()) {
      resync("table removed or made anew");
      out_.flush();
      if (done()) loop_.stop();
    } else if (!attached() || t_.rally.incarnationChanged()) {
      follow();
    }
  }

  bool attached() const { return t_.slots.attached() && t_.rally.attached(); }

  // The file at the slot file's path is not the one mapped (or there is none): the table was
  // removed, and maybe made again.
  bool slotFileReplaced() const {
    return SharedMem::EmberFile::identityAt(t_.slots.path()) != t_.slots.fileIdentity();
  }

  void resync(const std::string& why) {
    out_ << "resync (" << why << ")\n";
    reattach();
  }

  // Maps the table's files again and compares every slot with what it held; when they cannot
  // be mapped, nothing stays mapped. A failure is told once, until another one or a success.
  void reattach() {
    try {
      t_.slots.attach(o_.root, o_.table);
      attachSlabs(o_, t_);
      t_.rally.attach(o_.root, o_.table, t_.slots.emberId());
      std::error_code ec;
      if (!std::filesystem::exists(kick_->path(), ec)) reregister();
    } catch (const Zinc::Exception& e) {
      detach();
      if (e.what() != attachError_) out_ << "cannot re-attach: " << e.what() << "\n";
      attachError_ = e.what();
      return;
    }
    attachError_.clear();
    const uint32_t n = std::max<uint32_t>(slotsToLook(), uint32_t(last_.size()));
    for (uint32_t i = 0; i < n; ++i) look(i, true);
  }

  void detach() {
    t_.rally.detach();
    t_.slots.outOfLineIs(nullptr);
    t_.slabs.reset();
    t_.slots.detach();
  }

  // A table removed whole took our registration with it: its new writer kicks only those
  // registered in its own folder.
  void reregister() {
    kick_->unwatch(loop_);
    kick_ = std::make_unique<Mem::ReaderKickListener>(tableDir());
    kick_->watchOn(loop_, [this] { follow(); });
  }

  // The writer's slots, as far as its file holds them: a header that counts more is corrupt
  // (said once), and its count is no bound to walk to.
  uint32_t slotsToLook() {
    if (t_.slots.numSlots() > t_.slots.mappedSlots()) t_.slots.doResize();
    const uint32_t held = std::min(t_.slots.numSlots(), t_.slots.mappedSlots());
    if (held < t_.slots.numSlots() && !toldBeyond_) {
      out_ << "corrupt header: numSlots " << t_.slots.numSlots() << " beyond the file's " << held
           << " slots\n";
      toldBeyond_ = true;
    }
    return held;
  }

  void look(uint32_t slot, bool print) {
    Last now;
    now.bytes.resize(t_.readSize());
    try {
      auto r = t_.slots.read(slot, now.bytes.data(), &now.rhash);
      if (r == SlotReaderTable::Read::unmapped && t_.slots.doResize()) {
        r = t_.slots.read(slot, now.bytes.data(), &now.rhash);
      }
      now.occupied = r == SlotReaderTable::Read::occupied;
    } catch (const CorruptionException& e) {
      out_ << "corrupt slot " << slot << ": " << e.what() << "\n";
      return;
    }
    // Only a slot read from the file sizes what we keep: a free one beyond it has nothing to
    // compare, and an index beyond the file reads free.
    if (slot >= last_.size()) {
      if (!now.occupied) return;
      last_.resize(slot + 1);
    }
    Last& was = last_[slot];
    // A slab table's copy starts with its size word; the key follows.
    const size_t keyAt = t_.slabs ? sizeof(uint32_t) : 0;
    const bool sameKey =
        was.occupied && now.occupied && was.rhash == now.rhash &&
        std::memcmp(was.bytes.data() + keyAt, now.bytes.data() + keyAt,
                    std::min<size_t>({8, was.bytes.size() - keyAt, now.bytes.size() - keyAt})) == 0;
    if (print) {
      if (was.occupied && !sameKey) line("deleted", slot, was);
      if (now.occupied && !sameKey) line("added", slot, now);
      if (sameKey && was.bytes != now.bytes) line("changed", slot, now);
    }
    if (t_.slabs) now.bytes.resize(sizeof(uint32_t) + t_.valueOf(now.bytes).second);
    was = std::move(now);
  }

  void line(const char* what, uint32_t slot, const Last& l) {
    if (done()) return;
    out_ << what << " slot " << slot << " rhash " << hex32(l.rhash) << " "
         << hex(l.bytes.data(), l.bytes.size()) << "\n";
    ++lines_;
  }

  const Options& o_;
  Table& t_;
  std::ostream& out_;
  Zinc::Loop loop_;
  std::unique_ptr<Mem::ReaderKickListener> kick_;
  std::string attachError_;  // the last re-attach's failure, told once
  std::vector<Last> last_;
  uint64_t lines_ = 0;
  bool toldBeyond_ = false;  // slotsToLook() said that the header counts beyond the file
};

int watch(const Options& o, std::ostream& out, std::ostream& err) {
  Table t;
  if (int rc = open(o, t, err)) return rc;
  if (!t.rally.attached()) {
    err << "ledger watch: no change queue: " << t.rallyError << "\n";
    return kInvalid;
  }
  return Watcher(o, t, out).run();
}

// An option that the command does not take is an error: ignoring it would hide a typo or a
// wrong expectation (`ls --json` printing text).
bool optionsFit(const Options& o, std::ostream& err) {
  const struct {
    bool given;
    const char* option;
    const char* command;
  } options[] = {{o.json, "--json", "dump"},
                 {o.once, "--once", "validate"},
                 {o.countGiven, "--count", "watch"}};
  for (const auto& x : options) {
    if (x.given && o.command != x.command) {
      err << "ledger: " << x.option << " is an option of '" << x.command << "' only, not of '"
          << o.command << "'\n";
      return false;
    }
  }
  return true;
}

int runCommand(Options& o, std::ostream& out, std::ostream& err) {
  if (o.command == "ls") return ls(o, out, err);
  if (!resolveFolder(o, err)) return kUsage;
  if (o.command == "show") return show(o, out, err);
  if (o.command == "validate") return validate(o, out, err);
  if (o.command == "dump") return dump(o, out, err);
  return watch(o, out, err);
}

}  // namespace

int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  auto options = parse(args, err);
  if (!options) {
    err << kUsageText;
    return kUsage;
  }
  Options& o = *options;
  if (o.command.empty() || o.command == "help") {
    (o.help || o.command == "help" ? out : err) << kUsageText;
    return o.help || o.command == "help" ? kOk : kUsage;
  }
  auto help = kCommandHelp.find(o.command);
  if (help == kCommandHelp.end()) {
    err << "ledger: unknown command '" << o.command << "'\n" << kUsageText;
    return kUsage;
  }
  if (o.help) {
    out << help->second;
    return kOk;
  }
  if (!optionsFit(o, err)) return kUsage;
  // Each command reports what it finds wrong as it goes; anything a table's bytes make a lower
  // layer throw still ends as a report on the table, never as an abort.
  try {
    return runCommand(o, out, err);
  } catch (const std::exception& e) {
    err << "ledger " << o.command << ": " << o.table << ": " << e.what() << "\n";
    return kInvalid;
  }
}

}  // namespace LedgerTool
