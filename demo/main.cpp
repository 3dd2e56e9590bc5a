#include <iostream>

#include "capture_demo.h"

int main(int argc, char** argv) {
    return marlo_demo::RunCaptureDemo(argc, argv, std::cout, std::cerr);
}
