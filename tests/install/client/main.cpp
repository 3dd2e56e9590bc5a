// A client of the installed library: logs through marlo_log and prints an
// error code's name.
#include <marlo/base/error.h>
#include <marlo/base/logger.h>

#include <iostream>

int main() {
    marlo_log(MARLO_LOG_ERROR, "marlo_client", "installed client says hello %d", 42);
    std::cout << tessaro::marlo::ErrorToString(-4) << std::endl;
    return 0;
}
