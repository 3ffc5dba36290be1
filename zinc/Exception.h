// Exceptions and assertions of the object framework.
//
// RangeException: a value outside the bounds of its type; the message names the type.
// InternalException: a broken invariant. Its text is
//   "<file base name>:<line> <function signature> -- assertion failed(<condition>): <message>"
// Nobody is expected to catch it: uncaught, it ends the process (tests may catch it).
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace Zinc {

class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class RangeException : public Exception {
 public:
  using Exception::Exception;
};

class InternalException : public Exception {
 public:
  using Exception::Exception;
};

// "dir/MplsLfib.cc" -> "MplsLfib".
std::string fileBaseName(std::string_view path);

// Builds the assertion text (see above) without throwing.
std::string assertionText(std::string_view file, int line, std::string_view function,
                          std::string_view condition, std::string_view message);

[[noreturn]] void assertionFailed(const char* file, int line, const char* function,
                                  const char* condition, std::string_view message);

// Impossible input in a state machine: writes "Failed(false) <text>" to stderr and aborts.
[[noreturn]] void failed(std::string_view text);

}  // namespace Zinc

// ZINC_ASSERT(cond, message): throws Zinc::InternalException when cond is false. The condition
// is quoted in the text exactly as written at the call.
#define ZINC_ASSERT(cond, message)                                                      \
  do {                                                                                  \
    if (!(cond)) [[unlikely]]                                                           \
      ::Zinc::assertionFailed(__FILE__, __LINE__, __PRETTY_FUNCTION__, #cond, message); \
  } while (0)
