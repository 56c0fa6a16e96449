// Entry point of the test binaries whose cases write the unit's fixed paths (/home, /ramdisk,
// /etc/network, ...). They refuse to run anywhere but inside a simulated unit.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests) && access("/run/tovsim/unit", F_OK) != 0) {
        fprintf(stderr, "These tests write the unit's fixed paths: run them through "
                        "\"sim/tovsim exec -- %s\", never on this machine directly.\n",
                argv[0]);
        return 2;
    }
    return RUN_ALL_TESTS();
}
