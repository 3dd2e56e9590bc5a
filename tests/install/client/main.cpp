// A client of the installed library: logs through marlo_log and prints an
// error code's name. It includes every public header, so the installed
// headers must stand on their own.
#include <marlo/marlo.h>

#include <iostream>

int main() {
    marlo_log(MARLO_LOG_ERROR, "marlo_client", "installed client says hello %d", 42);
    std::cout << tessaro::marlo::ErrorToString(-4) << std::endl;
    return 0;
}
