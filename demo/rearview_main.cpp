#include <iostream>

#include "rearview.h"

int main(int argc, char** argv) {
    return marlo_demo::RunRearview(argc, argv, std::cout, std::cerr);
}
