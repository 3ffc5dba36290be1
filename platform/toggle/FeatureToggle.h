// Feature toggles: named switches that change behaviour without a rebuild.
//
// A toggle is looked up by name ("InPlaceMplsAdjacencyUpdate"), in this order:
//   1. an override set by the process itself (tests, tools): FeatureToggle::overrideIs();
//   2. the environment variable FEATURE_TOGGLE_<name>, e.g.
//        FEATURE_TOGGLE_InPlaceMplsAdjacencyUpdate=1
//      where 1/on/true/yes enable and 0/off/false/no disable;
//   3. the toggles file named by $FEATURE_TOGGLES_FILE (default /etc/mplsstate/toggles): one
//      toggle a line, "name" or "name=on|off" (same words as above), '#' starts a comment;
//   4. the default that the caller passes.
// The file is read on every query: toggles are read at start-up points, not on hot paths.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Platform {

class FeatureToggle {
 public:
  static bool enabled(std::string_view name, bool byDefault = false);
  // Forces a toggle in this process; nullopt removes the override.
  static void overrideIs(std::string_view name, std::optional<bool> value);
  // Parses "1/on/true/yes" and "0/off/false/no"; nullopt otherwise.
  static std::optional<bool> parseSetting(std::string_view text);
  static std::string defaultFile() { return "/etc/mplsstate/toggles"; }
};

}  // namespace Platform
