/* Small builders of configuration documents for the config and debug suites. */
#pragma once

#include <string>

namespace marlo_test {

/* A board element named \a name whose one camera has the id \a cameraId. */
inline std::string BoardXml(const std::string& name, int cameraId) {
    return "<board name=\"" + name + "\"><cameras><camera id=\"" + std::to_string(cameraId) +
           "\"/></cameras></board>";
}

/* A whole document holding \a boards under the "CameraConfig" root. */
inline std::string ConfigXml(const std::string& boards) {
    return "<?xml version=\"1.0\"?>\n<CameraConfig>" + boards + "</CameraConfig>\n";
}

}  // namespace marlo_test
