// The platform hash: the one function every process of the platform uses for checksums of
// shared-memory headers. Deterministic across processes, builds and hosts.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Dock::Util {

uint32_t hash(const void* data, size_t len);

}  // namespace Dock::Util
