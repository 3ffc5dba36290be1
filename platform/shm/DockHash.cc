#include "platform/shm/DockHash.h"

#include "zinc/Hash.h"

namespace Dock::Util {

uint32_t hash(const void* data, size_t len) { return Zinc::hashBytes(data, len); }

}  // namespace Dock::Util
