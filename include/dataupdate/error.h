// UpdateError: the one exception type that the library throws for its own
// failures (bad JSON shapes, failed file, network, configuration and lock
// operations, failed updates). Thrown by value, caught by reference; a copy
// keeps both the message and the code.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include "dataupdate/export.h"

namespace vesk::dataupdate {

class VESKDBUD_EXPORT UpdateError : public std::exception {
 public:
  enum ErrorCode : std::int32_t {
    kGeneral = 0,       // any failure
    kFileNotExist = 1,  // IOUtils::ReadJson: the file to read does not exist
  };

  // The constructors never throw: if the message cannot be copied (memory
  // exhausted, null pointer) the process ends.
  UpdateError(const char* message) noexcept;         // NOLINT(google-explicit-constructor)
  UpdateError(const std::string& message) noexcept;  // NOLINT(google-explicit-constructor)
  UpdateError(const std::string& message, ErrorCode code) noexcept;
  UpdateError(const UpdateError& other) noexcept;
  UpdateError& operator=(const UpdateError& other) noexcept;
  ~UpdateError() override;

  // The full message; valid for the object's lifetime.
  const char* what() const noexcept override;
  virtual ErrorCode code() const noexcept;

 private:
  std::string message_;
  ErrorCode code_;
};

}  // namespace vesk::dataupdate
