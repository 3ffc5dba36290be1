#include "zinc/Trace.h"

#include <fnmatch.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace Zinc {

namespace {

struct Rule {
  std::string pattern;
  uint32_t mask;
};

uint32_t parseLevels(std::string_view levels) {
  constexpr uint32_t all = (1u << 10) - 1;
  if (levels.empty() || levels == "*") return all;
  auto digit = [](char c) { return c >= '0' && c <= '9' ? c - '0' : -1; };
  if (levels.size() == 1 && digit(levels[0]) >= 0) return (2u << digit(levels[0])) - 1;
  if (levels.size() == 3 && levels[1] == '-' && digit(levels[0]) >= 0 &&
      digit(levels[2]) >= digit(levels[0])) {
    return ((2u << digit(levels[2])) - 1) & ~((1u << digit(levels[0])) - 1);
  }
  std::fprintf(stderr, "ZINC_TRACE: ignoring bad levels '%.*s'\n", int(levels.size()),
               levels.data());
  return 0;
}

std::vector<Rule> parseSpec(std::string_view spec) {
  std::vector<Rule> rules;
  while (!spec.empty()) {
    auto comma = spec.find(',');
    std::string_view item = spec.substr(0, comma);
    spec = comma == std::string_view::npos ? std::string_view() : spec.substr(comma + 1);
    if (item.empty()) continue;
    auto slash = item.find('/');
    std::string_view name = item.substr(0, slash);
    std::string_view levels =
        slash == std::string_view::npos ? std::string_view() : item.substr(slash + 1);
    rules.push_back({std::string(name), parseLevels(levels)});
  }
  return rules;
}

}  // namespace

class TraceRegistry {
 public:
  static TraceRegistry& instance() {
    static TraceRegistry registry;
    return registry;
  }

  void add(Trace* trace) {
    std::lock_guard lock(mutex_);
    traces_.push_back(trace);
    trace->mask_.store(maskFor(trace->name_), std::memory_order_relaxed);
  }
  void remove(Trace* trace) {
    std::lock_guard lock(mutex_);
    std::erase(traces_, trace);
  }
  void configure(std::string_view spec) {
    std::lock_guard lock(mutex_);
    rules_ = parseSpec(spec);
    for (Trace* t : traces_) t->mask_.store(maskFor(t->name_), std::memory_order_relaxed);
  }
  void sinkIs(Trace::Sink sink) {
    std::lock_guard lock(mutex_);
    sink_ = std::move(sink);
  }
  void sinkFileIs(const std::string& path) {
    std::lock_guard lock(mutex_);
    if (file_ && file_ != stderr) std::fclose(file_);
    file_ = path.empty() ? stderr : std::fopen(path.c_str(), "a");
    if (!file_) file_ = stderr;
  }
  void write(const Trace& trace, int level, std::string_view text) {
    std::lock_guard lock(mutex_);
    if (sink_) {
      sink_(trace, level, text);
      return;
    }
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    std::fprintf(file_, "%ld.%06ld %d %s/%d %.*s\n", static_cast<long>(ts.tv_sec),
                 ts.tv_nsec / 1000, static_cast<int>(getpid()), trace.name(), level,
                 static_cast<int>(text.size()), text.data());
    std::fflush(file_);
  }

 private:
  TraceRegistry() {
    if (const char* spec = std::getenv("ZINC_TRACE")) rules_ = parseSpec(spec);
    if (const char* path = std::getenv("ZINC_TRACE_FILE"); path && *path) {
      file_ = std::fopen(path, "a");
      if (!file_) file_ = stderr;
    }
  }

  uint32_t maskFor(const char* name) const {
    uint32_t mask = 0;
    for (const Rule& r : rules_) {
      if (fnmatch(r.pattern.c_str(), name, 0) == 0) mask = r.mask;  // last match wins
    }
    return mask;
  }

  std::mutex mutex_;
  std::vector<Trace*> traces_;
  std::vector<Rule> rules_;
  Trace::Sink sink_;
  FILE* file_ = stderr;
};

Trace::Trace(const char* name) : name_(name) { TraceRegistry::instance().add(this); }
Trace::~Trace() { TraceRegistry::instance().remove(this); }

void Trace::write(int level, std::string_view text) const {
  TraceRegistry::instance().write(*this, level, text);
}
void Trace::configure(std::string_view spec) { TraceRegistry::instance().configure(spec); }
void Trace::sinkIs(Sink sink) { TraceRegistry::instance().sinkIs(std::move(sink)); }
void Trace::sinkFileIs(const std::string& path) { TraceRegistry::instance().sinkFileIs(path); }

}  // namespace Zinc
