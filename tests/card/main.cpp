#include "LogCapture.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    QCoreApplication application(argc, argv);
    // Before any thread exists: the logger's instance and level are not guarded.
    LogCapture::install();
    return RUN_ALL_TESTS();
}
