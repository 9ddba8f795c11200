// main() of every test: names the application to the log, as a daemon does first of all.
#include <gtest/gtest.h>

#include "log.h"

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    glog_init("tests");
    return RUN_ALL_TESTS();
}
