#include "dataupdate/error.h"

namespace vesk::dataupdate {

UpdateError::UpdateError(const char* message) noexcept : message_(message), code_(kGeneral) {}

UpdateError::UpdateError(const std::string& message) noexcept
    : message_(message), code_(kGeneral) {}

UpdateError::UpdateError(const std::string& message, ErrorCode code) noexcept
    : message_(message), code_(code) {}

// Written out rather than "= default": the copy of the message may allocate, and
// the explicit noexcept is what ends the process when it cannot.
// NOLINTNEXTLINE(modernize-use-equals-default)
UpdateError::UpdateError(const UpdateError& other) noexcept
    : std::exception(other), message_(other.message_), code_(other.code_) {}

UpdateError& UpdateError::operator=(const UpdateError& other) noexcept {
  message_ = other.message_;
  code_ = other.code_;
  return *this;
}

UpdateError::~UpdateError() = default;

const char* UpdateError::what() const noexcept {
  return message_.c_str();
}

UpdateError::ErrorCode UpdateError::code() const noexcept {
  return code_;
}

}  // namespace vesk::dataupdate
