#include "zinc/Ptr.h"

namespace Zinc {

namespace {
std::atomic<bool> threadSafe{false};
}

void threadSafePtrsIs(bool enabled) { threadSafe.store(enabled, std::memory_order_relaxed); }
bool threadSafePtrs() { return threadSafe.load(std::memory_order_relaxed); }

void PtrInterface::newRef() const {
  if (threadSafe.load(std::memory_order_relaxed)) {
    // Relaxed suffices for an increment: the caller already holds a reference.
    refs_.fetch_add(1, std::memory_order_relaxed);
  } else {
    refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
}

void PtrInterface::deleteRef() const {
  uint32_t left;
  if (threadSafe.load(std::memory_order_relaxed)) {
    // acq_rel: the thread that drops the last reference must see every write made through
    // the other references before it destroys the object.
    left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  } else {
    left = refs_.load(std::memory_order_relaxed) - 1;
    refs_.store(left, std::memory_order_relaxed);
  }
  if (left != 0) return;
  if (zeroRefNotifiee_) zeroRefNotifiee_->onZeroReferences(this);
  delete this;
}

}  // namespace Zinc
