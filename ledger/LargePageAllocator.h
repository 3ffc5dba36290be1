// LargePageAllocator: a std allocator for the big process-local arrays of a shadow (a slot
// per writer slot, a bucket per entry). Arrays of 2 MB and more are mapped on their own and
// marked for transparent huge pages where the system allows it, so that filling a shadow of
// a million entries takes a few dozen page faults instead of tens of thousands, and its
// random accesses miss the TLB far less. Smaller arrays come from the heap.
//
// Elements that resize() adds are default-initialised (see construct): plain bytes and
// pointers are left as they are.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace Ledger {

template <class T>
struct LargePageAllocator {
  using value_type = T;
  static constexpr size_t kLargeBytes = size_t{2} << 20;

  LargePageAllocator() = default;
  template <class U>
  LargePageAllocator(const LargePageAllocator<U>&) {}

  // Whether an array of `n` elements comes zero-filled from allocate(): a fresh mapping does.
  static bool zeroFilled(size_t n) { return n * sizeof(T) >= kLargeBytes; }

  T* allocate(size_t n) {
    const size_t bytes = n * sizeof(T);
    if (bytes < kLargeBytes) return std::allocator<T>().allocate(n);
    const size_t mapped = mappedBytes(bytes);
    void* at = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (at == MAP_FAILED) throw std::bad_alloc();
    ::madvise(at, mapped, MADV_HUGEPAGE);  // advice only: without it, plain pages
    return static_cast<T*>(at);
  }
  void deallocate(T* p, size_t n) {
    const size_t bytes = n * sizeof(T);
    if (bytes < kLargeBytes) {
      std::allocator<T>().deallocate(p, n);
    } else {
      ::munmap(p, mappedBytes(bytes));
    }
  }
  // A mapping a whole number of large pages long: the system places those on a large page
  // boundary, so that every one of its large pages can be one (a length in between leaves
  // the start and the end of the array, up to a large page each, on small pages).
  static size_t mappedBytes(size_t bytes) { return (bytes + kLargeBytes - 1) & ~(kLargeBytes - 1); }
  // Elements added by resize() are default-initialised, not value-initialised: a fresh
  // mapping is zero already, and a shadow reads no slot before it writes it, so a second
  // pass of zeroes over a million slots buys nothing.
  template <class U>
  void construct(U* p) noexcept(std::is_nothrow_default_constructible_v<U>) {
    ::new (static_cast<void*>(p)) U;
  }
  template <class U, class... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
  template <class U>
  bool operator==(const LargePageAllocator<U>&) const {
    return true;
  }
};

}  // namespace Ledger
