// ctest runs each test of a program in a process of its own on an empty device. By hand:
// BUILD/tools/device/device BUILD/tests/M_test [--gtest_filter=PATTERN]
#include "device.hpp"

#include <cstdio>

#include <gtest/gtest.h>

// Known one-time allocations of libraries; nothing of ours is named here.
extern "C" __attribute__((visibility("default"))) const char *__lsan_default_suppressions()
{
    return "leak:libglib-2.0.so\n";
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (!on_device()) {
        std::fputs("Tests need an empty device: use ctest, or tools/device/device before the program.\n", stderr);
        return 2;
    }
    return RUN_ALL_TESTS();
}
