// Fuzz target: arbitrary bytes as a table's files. A writer attaches to them (validating,
// recovering or re-formatting), then looks keys up, iterates, validates and changes the
// table. Nothing may crash, hang or read out of bounds, whatever the files hold.
//
// Input: one mode byte, then the bytes of the files. Mode bit 0 set: the first bytes become
// the slot file as they are. Clear: the slot file gets a well-formed header (so that the
// fuzzer reaches chains, free list and queue) with counters and slots from the input. The
// remaining input is split between the bucket file and the queue files.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "fuzz/TableFiles.h"
#include "ledger/LedgerWriter.h"

namespace {

using namespace Fuzz;
using Writer = Ledger::LedgerWriter<FuzzKey, FuzzValue>;

std::vector<uint8_t> slotFile(Input& in, bool raw) {
  if (raw) return in.take(in.word() % 4096);
  const Ledger::TableShape table{sizeof(FuzzValue), 0, "Fuzz::Value", "Ledger::Table<Fuzz::Value>"};
  return formattedSlotFile(in, table, in.word() | 1, [&](Ledger::SlotTableHeader& h) {
    h.freeListHead = in.word();
    if (h.freeListHead & 1) h.freeListHead = Ledger::kNoSlot;
    h.freeListHead %= h.numSlots + 1;
  });
}

void exercise(Writer& w, Input& in) {
  FuzzValue v;
  for (uint32_t i = 0; i < 8; ++i) w.lookup(FuzzKey{in.word() % 64}, v);
  uint32_t hint = Ledger::kNoSlot;
  int steps = 0;
  for (bool more = w.first(v); more && steps < 10000; more = w.next(v.k, v, &hint)) ++steps;
  w.validate();
  for (uint32_t i = 0; i < 16 && in.left() > 0; ++i) {
    uint32_t op = in.word();
    if (op & 1) {
      w.remove(FuzzKey{op % 64});
    } else {
      w.write(FuzzValue{{op % 64}, op});
    }
  }
  // Whatever the files held, the writer's table is sound after its own changes.
  if (!w.validate()) {
    std::fprintf(stderr, "table unsound after writes: %s\n", w.validationError().c_str());
    __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string root = "/dev/shm/ledger-fuzz-" + std::to_string(::getpid());
  if (size < 1) return 0;
  Input in(data + 1, size - 1);
  const std::string dir = root + "/t";
  std::filesystem::create_directories(dir);
  writeFile(dir + "/slots", slotFile(in, data[0] & 1));
  writeOthers(dir, in, false, 0);  // raw bytes
  Ledger::LedgerConfig config;
  config.root = root;
  config.table = "t";
  config.capacity = 4;
  config.minBuckets = 2;
  try {
    Writer w(config);
    w.attach();
    exercise(w, in);
  } catch (const Ledger::CorruptionException&) {
    // Reported, as a reader or the owning map would; nothing more to check.
  }
  std::filesystem::remove_all(root);
  return 0;
}
