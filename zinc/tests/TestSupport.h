// Helpers every layer's tests share: catching what the traces say, what a call throws, and
// what a directory tells of its entries.
#pragma once

#include <algorithm>
#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "zinc/Dir.h"
#include "zinc/Trace.h"

namespace ZincTest {

// Turns on the traces `spec` names (the ZINC_TRACE syntax) and keeps their lines for as long as
// it lives; tracing is off again afterwards, even when an assertion ends the test early.
class TraceCapture {
 public:
  explicit TraceCapture(std::string_view spec) {
    Zinc::Trace::configure(spec);
    Zinc::Trace::sinkIs(
        [this](const Zinc::Trace&, int, std::string_view text) { lines.emplace_back(text); });
  }
  ~TraceCapture() {
    Zinc::Trace::sinkIs({});
    Zinc::Trace::configure("");
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // Whether some line holds `text`.
  bool has(std::string_view text) const {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(text) != line.npos; });
  }
  void clear() { lines.clear(); }

  std::vector<std::string> lines;
};

// What `f` throws as an `Ex`, or "" when it returns. Anything else it throws goes on up.
template <class Ex = std::exception>
std::string failureOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const Ex& e) {
    return e.what();
  }
  return "";
}

// Logs each entry a directory notifies as "<name>+" while present, "<name>-" once gone.
class DirEntryLog : public Zinc::Dir::NotifieeConst {
 public:
  void onEntry(const Zinc::Name& n) override {
    log.push_back(n.str() + (notifier()->entryHas(n) ? "+" : "-"));
  }
  std::vector<std::string> log;
};

}  // namespace ZincTest
