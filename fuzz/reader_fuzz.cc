// Fuzz target: arbitrary bytes as a table's files, read by the reader side only. A direct
// reader looks keys up, iterates and reads slots by index; a shadow syncs and follows the
// change queue. Nothing may crash, hang or read out of bounds, whatever the files hold; a
// reader reports corruption and carries on. Lookups go one by one and in a batch.
//
// Input: one mode byte, then the bytes of the files. Mode bit 0 set: the slot file is taken
// as it comes. Clear: it gets a well-formed header (so that the fuzzer reaches slots and
// chains) with counters and slots from the input. Bit 1 set: the bucket header, the queue's
// control block and queue header are made well-formed, their fields and bodies from the
// input, so that walks and the queue reader are reached; clear: those files are raw bytes.
// Bit 2 set: the table is a slab table (slots hold slab references) and three slab files
// follow, with well-formed fixed headers when bit 1 is set; its readers copy the payloads.
// What input is left after that changes the files under the mounted shadow and the direct
// reader, a few bytes a round, each round ending with a kick and a few more direct reads:
// what a faulty writer would do to readers that follow it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "fuzz/TableFiles.h"
#include "ledger/LedgerShadow.h"
#include "ledger/Shape.h"
#include "ledger/SlabOps.h"
#include "platform/shm/ReaderKick.h"

namespace {

using namespace Fuzz;

template <class Value, class OpsT>
using DirectReader = Ledger::LedgerReader<FuzzKey, Value, OpsT>;

// `n` lookups one by one and `n` in a batch, a bounded walk in key order, `n` slots read by
// index.
template <class Value, class OpsT>
void readDirectly(DirectReader<Value, OpsT>& reader, Input& in, uint32_t n) {
  Value v;
  for (uint32_t i = 0; i < n; ++i) reader.lookup(FuzzKey{in.word() % 64}, v);
  FuzzKey keys[8];
  Value values[8];
  bool found[8];
  n = std::min<uint32_t>(n, 8);
  for (uint32_t i = 0; i < n; ++i) keys[i].id = in.word() % 64;
  reader.lookupBatch(std::span<const FuzzKey>(keys, n), std::span<Value>(values, n),
                     std::span<bool>(found, n));
  uint32_t hint = Ledger::kNoSlot;
  int steps = 0;
  for (bool more = reader.first(v); more && steps < 10000;
       more = reader.next(OpsT::keyOf(v), v, &hint)) {
    ++steps;
  }
  for (uint32_t i = 0; i < n; ++i) {
    try {
      reader.getValue(in.word() % 128, v);
    } catch (const Ledger::CorruptionException&) {
    }
  }
}

// Writes a few bytes of the input over one of the table's files, in place, as a faulty writer
// (or a stray process) would: at a place in its first 256 bytes (the headers) or anywhere.
void changeBytes(const std::string& dir, Input& in) {
  std::vector<std::filesystem::path> files;
  for (const auto& e : std::filesystem::directory_iterator(dir)) {
    if (e.is_regular_file()) files.push_back(e.path());
  }
  if (files.empty()) return;
  std::sort(files.begin(), files.end());
  const std::filesystem::path& file = files[in.word() % files.size()];
  const uint64_t size = std::filesystem::file_size(file);
  if (size == 0) return;
  const uint32_t where = in.word();
  const uint64_t at = (where & 1) ? (where >> 1) % std::min<uint64_t>(size, 256) : where % size;
  const std::vector<uint8_t> bytes = in.take(1 + in.word() % 8);
  const int fd = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return;
  const size_t n = std::min<uint64_t>(bytes.size(), size - at);  // never grows the file
  // A write that fails changes nothing: the round goes on as it is.
  [[maybe_unused]] const ssize_t written = n > 0 ? ::pwrite(fd, bytes.data(), n, off_t(at)) : 0;
  ::close(fd);
}

// A direct reader reads, and a shadow mounts, syncs and follows the queue; then, round after
// round, bytes change under both, the shadow is kicked as a writer kicks it, and the direct
// reader reads again.
template <class Value, class OpsT>
void readAndFollow(const std::string& root, Input& in) {
  // A resize left under way is waited for a moment only, not the seconds a live writer is given.
  const Ledger::ReaderConfig config{root, "t", std::chrono::milliseconds(1)};
  DirectReader<Value, OpsT> reader(config);
  const bool direct = reader.initialize();
  reader.corruptionHandlerIs([](const std::string&) {});
  if (direct) readDirectly(reader, in, 8);
  Zinc::Loop loop;
  Ledger::ShadowOptions options;
  options.mountRetry = std::chrono::milliseconds(1);
  options.healthCheck = std::chrono::milliseconds(1);
  Ledger::LedgerShadow<FuzzKey, Value, OpsT> shadow(config, loop, Ledger::DummyShadowNotifier(),
                                                    OpsT(), options);
  shadow.initialize();
  auto run = [&](int times) {
    for (int i = 0; i < times; ++i) loop.runOnce(std::chrono::milliseconds(0));
  };
  run(20);
  Mem::ReaderKickSm kicker(root + "/t");
  for (int round = 0; round < 8 && in.left() > 0; ++round) {
    changeBytes(root + "/t", in);
    kicker.commitNotify();
    kicker.flush();
    run(8);
    if (direct) readDirectly(reader, in, 2);
  }
  shadow.detach();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string root = "/dev/shm/ledger-reader-fuzz-" + std::to_string(::getpid());
  if (size < 1) return 0;
  Input in(data + 1, size - 1);
  const std::string dir = root + "/t";
  std::filesystem::create_directories(dir);
  const bool slabs = data[0] & 4;
  uint32_t ember = writeSlots(dir, in, data[0] & 1, slabs);
  writeOthers(dir, in, data[0] & 2, ember);
  if (slabs) {
    writeSlabs(dir, in, data[0] & 2, ember);
    readAndFollow<FuzzSet, FuzzSetOps>(root, in);
  } else {
    readAndFollow<FuzzValue, Ledger::Ops<FuzzKey, FuzzValue>>(root, in);
  }
  std::filesystem::remove_all(root);
  return 0;
}
