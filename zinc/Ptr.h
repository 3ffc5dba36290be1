// Zinc::Ptr<T>: the intrusive reference-counted pointer that holds every entity and reactor.
//
// The count lives in the object (PtrInterface). Increments and decrements are atomic
// read-modify-writes when the process has enabled thread-safe pointers
// (Zinc::threadSafePtrsIs(true)), and a plain load/add/store otherwise: most agents touch
// their objects from one thread only and should not pay for a locked instruction.
// The switch is meant to be set once at start-up, before any second thread exists.
//
// When the count drops to zero, the object's zero-references notifiee (if any) runs first,
// then the object is deleted. Ptr<T const> is the read-only form (T::PtrConst).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

namespace Zinc {

void threadSafePtrsIs(bool enabled);
bool threadSafePtrs();

class PtrInterface;

// Told once, just before an object whose count dropped to zero is destroyed. The object is
// still whole; the notifiee must not take a new reference to it.
class ZeroReferencesNotifiee {
 public:
  virtual ~ZeroReferencesNotifiee() = default;
  virtual void onZeroReferences(const PtrInterface* object) = 0;
};

class PtrInterface {
 public:
  PtrInterface(const PtrInterface&) = delete;
  PtrInterface& operator=(const PtrInterface&) = delete;

  uint32_t references() const { return refs_.load(std::memory_order_relaxed); }
  void newRef() const;
  void deleteRef() const;

  ZeroReferencesNotifiee* zeroReferencesNotifiee() const { return zeroRefNotifiee_; }
  void zeroReferencesNotifieeIs(ZeroReferencesNotifiee* n) const { zeroRefNotifiee_ = n; }

 protected:
  PtrInterface() = default;
  virtual ~PtrInterface() = default;

 private:
  mutable std::atomic<uint32_t> refs_{0};
  mutable ZeroReferencesNotifiee* zeroRefNotifiee_ = nullptr;
};

template <class T>
class Ptr {
 public:
  using Element = T;

  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* p) : p_(p) { acquire(); }
  Ptr(const Ptr& o) : p_(o.p_) { acquire(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& o) : p_(o.get()) { acquire(); }
  ~Ptr() { release(); }

  Ptr& operator=(Ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  void reset() { Ptr().swap(*this); }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  template <class U>
  friend bool operator==(const Ptr& a, const Ptr<U>& b) {
    return a.get() == b.get();
  }
  friend bool operator==(const Ptr& a, std::nullptr_t) { return a.p_ == nullptr; }

 private:
  void acquire() const {
    if (p_) p_->newRef();
  }
  void release() {
    if (p_) std::exchange(p_, nullptr)->deleteRef();
  }
  T* p_ = nullptr;
};

// Checked down-cast; a null Ptr when `p` is not a U.
template <class U, class T>
Ptr<U> ptrCast(const Ptr<T>& p) {
  return Ptr<U>(dynamic_cast<U*>(p.get()));
}

}  // namespace Zinc

template <class T>
struct std::hash<Zinc::Ptr<T>> {
  size_t operator()(const Zinc::Ptr<T>& p) const { return std::hash<T*>()(p.get()); }
};
