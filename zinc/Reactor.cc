#include "zinc/Reactor.h"

namespace Zinc {

std::string nullInputText(std::string_view parameter, std::string_view attribute) {
  std::string text = "null ";
  text.append(parameter).append(" parameter to mutator for ").append(attribute);
  return text.append(" not allowed");
}

}  // namespace Zinc
