#include "zinc/Exception.h"

#include <cstdio>
#include <cstdlib>

namespace Zinc {

std::string fileBaseName(std::string_view path) {
  auto slash = path.find_last_of('/');
  if (slash != std::string_view::npos) path.remove_prefix(slash + 1);
  auto dot = path.find('.');
  if (dot != std::string_view::npos) path = path.substr(0, dot);
  return std::string(path);
}

std::string assertionText(std::string_view file, int line, std::string_view function,
                          std::string_view condition, std::string_view message) {
  std::string text = fileBaseName(file);
  text += ':';
  text += std::to_string(line);
  text += ' ';
  text += function;
  text += " -- assertion failed(";
  text += condition;
  text += "): ";
  text += message;
  return text;
}

void assertionFailed(const char* file, int line, const char* function, const char* condition,
                     std::string_view message) {
  throw InternalException(assertionText(file, line, function, condition, message));
}

void failed(std::string_view text) {
  std::fprintf(stderr, "Failed(false) %.*s\n", static_cast<int>(text.size()), text.data());
  std::fflush(stderr);
  std::abort();
}

}  // namespace Zinc
