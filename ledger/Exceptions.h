// The table's exceptions.
#pragma once

#include "zinc/Exception.h"

namespace Ledger {

// The shared files hold something the protocol cannot have produced: a bad header, a chain
// that loops or holds a foreign key, a broken free list. Whoever owns the table reports it
// through corruptionDetected and carries on as if the entry were absent.
class CorruptionException : public Zinc::Exception {
 public:
  using Zinc::Exception::Exception;
};

// Runs `decode`, which decodes stored bytes: false when they are no value of their type (it
// threw CorruptionException). For bytes that may yet prove torn, or that are passed over.
template <class Fn>
bool decodes(Fn&& decode) {
  try {
    decode();
    return true;
  } catch (const CorruptionException&) {
    return false;
  }
}

// A table cannot be set up as asked (bad type name, unreachable file, refused capacity).
class InitializationException : public Zinc::Exception {
 public:
  using Zinc::Exception::Exception;
};

// The slot table cannot grow any further.
class TableFullException : public Zinc::Exception {
 public:
  using Zinc::Exception::Exception;
};

}  // namespace Ledger
