#pragma once

#include <exception>
#include <string>

namespace klay {

/// What the platform's libraries throw.
class __attribute__((visibility("default"))) Exception : public std::exception {
 public:
  explicit Exception(const std::string& message);
  Exception(const Exception&) = default;
  Exception& operator=(const Exception&) = default;
  ~Exception() override;

  /// The text given to the constructor; valid as long as the exception.
  const char* what() const noexcept override;

 private:
  std::string message;
};

}  // namespace klay
