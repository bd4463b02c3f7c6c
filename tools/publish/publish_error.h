// The publisher's one error type: a message for the operator, printed by main.
#pragma once

#include <stdexcept>
#include <string>

namespace vesk::publish {

class PublishError : public std::runtime_error {
 public:
  explicit PublishError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace vesk::publish
