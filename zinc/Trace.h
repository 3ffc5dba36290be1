// The trace facility: one named trace per source file, levels 0 to 9.
//
// Enabled by the environment variable ZINC_TRACE, a comma-separated list of NAME/LEVELS:
//   ZINC_TRACE='LabelManagerSm/8,Ledger*/0-3,MplsLfibWriter'
// NAME may hold '*' wildcards. LEVELS is "N" (levels 0..N), "N-M", or absent (all levels).
// Lines go to stderr, or to the file named by ZINC_TRACE_FILE. A disabled trace costs one
// relaxed atomic load and a bit test: nothing is formatted unless the level is on.
//
// Conventional levels: 0 tolerated anomalies, 1 changes, 8 a handler's own signature.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>

namespace Zinc {

class Trace {
 public:
  explicit Trace(const char* name);
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;
  ~Trace();

  const char* name() const { return name_; }
  bool enabled(int level) const { return (mask_.load(std::memory_order_relaxed) >> level) & 1u; }
  void write(int level, std::string_view text) const;

  // Replaces the configuration (same syntax as ZINC_TRACE) for every trace, present and future.
  static void configure(std::string_view spec);
  // Sends every line to `sink` instead of stderr/file (tests); an empty function restores.
  using Sink = std::function<void(const Trace&, int level, std::string_view text)>;
  static void sinkIs(Sink sink);
  // Sends lines to a file (appending); an empty path restores stderr.
  static void sinkFileIs(const std::string& path);

 private:
  friend class TraceRegistry;
  const char* name_;
  std::atomic<uint32_t> mask_{0};
};

}  // namespace Zinc

// One file-level trace per source file: ZINC_TRACE_FILE("LabelManagerSm");
#define ZINC_TRACE_FILE(traceName)         \
  namespace {                              \
  ::Zinc::Trace zincFileTrace_(traceName); \
  }

// ZTRACE(level, a << b << c): formats and writes only when the level is enabled.
#define ZTRACE_TO(trace, level, expr)           \
  do {                                          \
    if ((trace).enabled(level)) [[unlikely]] {  \
      std::ostringstream zincTraceOs_;          \
      zincTraceOs_ << expr;                     \
      (trace).write(level, zincTraceOs_.str()); \
    }                                           \
  } while (0)
#define ZTRACE(level, expr) ZTRACE_TO(zincFileTrace_, level, expr)
