#include "support/scoped_property.h"

#include <cutils/properties.h>

namespace marlo_test {

ScopedProperty::ScopedProperty(const std::string& key, const std::string& value) : key_(key) {
    char previous[PROPERTY_VALUE_MAX];
    property_get(key.c_str(), previous, "");
    previous_ = previous;
    property_set(key.c_str(), value.c_str());
}

ScopedProperty::~ScopedProperty() {
    property_set(key_.c_str(), previous_.c_str());
}

}  // namespace marlo_test
