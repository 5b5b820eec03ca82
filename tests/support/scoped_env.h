#pragma once

#include <stdlib.h>

#include <optional>
#include <string>

namespace kestro::test {

/// Sets an environment variable (or removes it, given nullopt) for the life of the object and
/// then puts back what was there. Tests that change KESTRO_DEV_HOST or KESTRO_PROD_HOST use it,
/// so that the loopback hosts the test main set are in place again for the tests after them.
class ScopedEnv {
  public:
    ScopedEnv(std::string name, const std::optional<std::string>& value) : name_(std::move(name)) {
        if (const char* old = std::getenv(name_.c_str())) saved_ = old;
        set(value);
    }
    ~ScopedEnv() { set(saved_); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

    void set(const std::optional<std::string>& value) const {
        if (value) {
            setenv(name_.c_str(), value->c_str(), 1);
        } else {
            unsetenv(name_.c_str());
        }
    }

  private:
    std::string name_;
    std::optional<std::string> saved_;
};

}  // namespace kestro::test
