// main() of the plain C++ test executables (no Qt).
#include "support/sanitizer_defaults.h"

#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
