// Entry point of the GoogleTest binaries whose cases write the unit's fixed paths (/home,
// /ramdisk, /etc/network, ...). They refuse to run anywhere but inside a simulated unit.
#include "testfiles.h"

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests) && !tovtest::insideUnit(argv[0]))
        return 2;
    return RUN_ALL_TESTS();
}
