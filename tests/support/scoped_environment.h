#pragma once
// An environment variable set (or unset, with nullptr) for the life of an
// object; the previous state comes back afterwards.
#include <cstdlib>
#include <string>

class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) {
      hadValue_ = true;
      old_ = old;
    }
    if (value) {
      ::setenv(name, value, 1);
    } else {
      ::unsetenv(name);
    }
  }
  ScopedEnvironment(const char* name, const std::string& value) : ScopedEnvironment(name, value.c_str()) {}
  ~ScopedEnvironment() {
    if (hadValue_) {
      ::setenv(name_.c_str(), old_.c_str(), 1);
    } else {
      ::unsetenv(name_.c_str());
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::string name_;
  bool hadValue_ = false;
  std::string old_;
};
