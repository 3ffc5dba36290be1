#include "lfib/IdxAllocators.h"

#include "zinc/Exception.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("LfibGenAdjIdxAllocator");

namespace MplsHelper {

Zinc::Ptr<SrTunnelIdxAllocator> srTunnelIdxAllocatorFactory() {
  return Zinc::makePtr<SrTunnelIdxAllocator>();
}

uint64_t LfibGenAdjIdxAllocator::getAdjacencyIndex(LFib::Source source) {
  ZTRACE(8, "getAdjacencyIndex"
                << " source: " << source);
  ZINC_ASSERT(uint32_t(source) < 16, "source does not fit the top four bits");
  const uint64_t start = adjIndex(source) & numberMask;
  uint64_t number = start;
  for (;;) {
    number = (number + 1) & numberMask;
    if (number == 0) number = 1;
    const uint64_t candidate = withSource(source, number);
    if (!lfib_->adjacencyIndexUsed(candidate) && !outstanding(candidate)) {
      useAdjacencyIndex(source, candidate);
      outstanding_.insert(candidate);
      ZTRACE(1, " allocate adj index 0x" << std::hex << candidate);
      return candidate;
    }
    ZTRACE(7, " index already used " << std::hex << candidate);
    ZINC_ASSERT(number != start, "No adjacency indices left");
  }
}

void LfibGenAdjIdxAllocator::useAdjacencyIndex(LFib::Source source, uint64_t index) {
  ZTRACE(8, "useAdjacencyIndex"
                << " source: " << source << ", use idx: " << index);
  adjIndexIs(source, index);
}

void LfibGenAdjIdxAllocator::resetAdjacencyIndex(LFib::Source source) { adjIndexIs(source, 1); }

void LfibGenAdjIdxAllocator::releaseAdjacencyIndex(LFib::Source source, uint64_t index) {
  ZTRACE(8, "releaseAdjacencyIndex"
                << " source: " << source << ", idx: " << index);
  outstanding_.erase(index);
}

Zinc::Ptr<LfibGenAdjIdxAllocator> lfibGenAdjIdxAllocatorFactory(
    const Zinc::Ptr<Mpls::LfibBase const>& lfib) {
  return Zinc::makePtr<LfibGenAdjIdxAllocator>(lfib);
}

}  // namespace MplsHelper
