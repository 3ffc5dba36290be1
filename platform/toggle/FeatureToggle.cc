#include "platform/toggle/FeatureToggle.h"

#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>

#include "zinc/Trace.h"

ZINC_TRACE_FILE("FeatureToggle");

namespace Platform {

namespace {

std::mutex overridesMutex;
std::map<std::string, bool, std::less<>>& overrides() {
  static std::map<std::string, bool, std::less<>> table;
  return table;
}

std::string_view trimmed(std::string_view s) {
  const char* blanks = " \t\r\n";
  size_t begin = s.find_first_not_of(blanks);
  if (begin == std::string_view::npos) return {};
  return s.substr(begin, s.find_last_not_of(blanks) - begin + 1);
}

std::optional<bool> fromFile(std::string_view name) {
  const char* env = std::getenv("FEATURE_TOGGLES_FILE");
  std::ifstream in(env && *env ? std::string(env) : FeatureToggle::defaultFile());
  std::string line;
  std::optional<bool> found;
  while (std::getline(in, line)) {
    std::string_view text = trimmed(std::string_view(line).substr(0, line.find('#')));
    size_t eq = text.find('=');
    if (trimmed(text.substr(0, eq)) != name) continue;
    if (eq == std::string_view::npos) {
      found = true;
      continue;
    }
    found = FeatureToggle::parseSetting(trimmed(text.substr(eq + 1)));
    if (!found) ZTRACE(0, "FeatureToggle: bad setting for " << name << ": " << line);
  }
  return found;
}

}  // namespace

std::optional<bool> FeatureToggle::parseSetting(std::string_view text) {
  for (std::string_view on : {"1", "on", "true", "yes"}) {
    if (text == on) return true;
  }
  for (std::string_view off : {"0", "off", "false", "no"}) {
    if (text == off) return false;
  }
  return std::nullopt;
}

bool FeatureToggle::enabled(std::string_view name, bool byDefault) {
  {
    std::lock_guard<std::mutex> lock(overridesMutex);
    auto it = overrides().find(name);
    if (it != overrides().end()) return it->second;
  }
  std::string var = "FEATURE_TOGGLE_" + std::string(name);
  if (const char* env = std::getenv(var.c_str())) {
    if (auto setting = parseSetting(trimmed(env))) return *setting;
    ZTRACE(0, "FeatureToggle: bad setting " << var << "=" << env);
  }
  if (auto setting = fromFile(name)) return *setting;
  return byDefault;
}

void FeatureToggle::overrideIs(std::string_view name, std::optional<bool> value) {
  std::lock_guard<std::mutex> lock(overridesMutex);
  if (value) {
    overrides()[std::string(name)] = *value;
  } else if (auto it = overrides().find(name); it != overrides().end()) {
    overrides().erase(it);
  }
}

}  // namespace Platform
