/* ScopedProperty sets a system property for one test and restores it after. */
#pragma once

#include <string>

namespace marlo_test {

class ScopedProperty {
  public:
    ScopedProperty(const std::string& key, const std::string& value);
    ~ScopedProperty();

    ScopedProperty(const ScopedProperty&) = delete;
    ScopedProperty& operator=(const ScopedProperty&) = delete;

  private:
    std::string key_;
    std::string previous_;
};

}  // namespace marlo_test
