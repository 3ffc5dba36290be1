// streamCopy: a copy whose stores go straight to memory (non-temporal), for a bulk fill of
// memory that is not read again soon. A plain store first fetches the line it writes (read
// for ownership) and leaves it in the cache; a sync writing a hundred megabytes of copies
// doubles its memory traffic that way and evicts what it does read again (its hash map).
// Where the processor has no such stores, a plain copy.
#pragma once

#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Ledger {

inline void streamCopy(uint8_t* dst, const uint8_t* src, size_t n) {
#if defined(__SSE2__)
  auto word = [&] {
    int v;
    std::memcpy(&v, src, 4);
    _mm_stream_si32(reinterpret_cast<int*>(dst), v);
    dst += 4, src += 4, n -= 4;
  };
  if (reinterpret_cast<uintptr_t>(dst) % 4 == 0) {
    while (n >= 4 && reinterpret_cast<uintptr_t>(dst) % 16 != 0) word();
    for (; n >= 16; dst += 16, src += 16, n -= 16) {
      _mm_stream_si128(reinterpret_cast<__m128i*>(dst),
                       _mm_loadu_si128(reinterpret_cast<const __m128i*>(src)));
    }
    while (n >= 4) word();
  }
#endif
  std::memcpy(dst, src, n);
}

// Orders the streaming stores before any store that follows (for other threads: this one
// sees its own stores in order either way).
inline void streamFence() {
#if defined(__SSE2__)
  _mm_sfence();
#endif
}

}  // namespace Ledger
