/*
 * Helpers the demo tools share: option values, fourcc text, the device's
 * frame rate and controls, and the library's log level for the tool's own
 * process.
 */
#pragma once

#include <stdint.h>

#include <string>

namespace marlo_demo {

/* The four characters of a fourcc code, '.' for those that do not print. */
std::string FourccText(uint32_t code);
/* Four characters to a fourcc code. */
bool ParseFourcc(const std::string& text, uint32_t* code);
/* A decimal number from \a minimum to one million. */
bool ParseNumber(const std::string& text, int minimum, int* value);
/* "WxH", each from 2 to 16384. */
bool ParseSize(const std::string& text, uint32_t* width, uint32_t* height);

/*
 * The frame rate the capture node \a device runs at (VIDIOC_G_PARM; the
 * library sets it at the start). 0 with \a error set when the node does not
 * tell.
 */
double DeviceRate(const std::string& device, std::string* error);

/*
 * Sets the control named \a name (as the driver lists it, e.g. "Brightness")
 * on the capture node \a device to \a value. False with \a error set when
 * the node has no such control or refuses the value.
 */
bool SetDeviceControl(const std::string& device, const std::string& name, int32_t value,
                      std::string* error);
/* The same on an open node. */
bool SetControlByName(int fd, const std::string& name, int32_t value);

/*
 * Sets the library's log level property for this process while it lives:
 * the library logs some normal-path lines at error severity, which a tool
 * shows only when asked to be verbose. The previous level comes back after.
 */
class ToolLogLevel {
  public:
    explicit ToolLogLevel(bool verbose);
    ~ToolLogLevel();

    ToolLogLevel(const ToolLogLevel&) = delete;
    ToolLogLevel& operator=(const ToolLogLevel&) = delete;

  private:
    std::string previous_;
};

}  // namespace marlo_demo
