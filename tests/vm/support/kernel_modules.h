/*
 * Kernel module and driver binding control inside the bench's machine, for
 * tests that take a device away and bring it back: modules are loaded from
 * /lib/modules/NAME.ko with the options they were booted with (the lines of
 * /lib/modules/modules.order), and drivers are bound and unbound through
 * sysfs.
 */
#pragma once

#include <string>

namespace marlo_vm {

/* The options \a module was loaded with at boot ("" when none or not listed). */
std::string BootOptions(const std::string& module);
/* Loads /lib/modules/\a module.ko with \a options; false with errno on failure. */
bool LoadModule(const std::string& module, const std::string& options);
/* Removes \a module (which must be unused); false with errno on failure. */
bool UnloadModule(const std::string& module);
/* Unloads \a module and loads it again with its boot options. */
bool ReloadModule(const std::string& module);

/* Writes \a value to the sysfs file \a path (for instance a driver's bind or unbind). */
bool WriteSysfs(const std::string& path, const std::string& value);

/* Waits up to \a timeoutMs for \a path to exist. */
bool WaitForPath(const std::string& path, int timeoutMs);

}  // namespace marlo_vm
