#include <QCoreApplication>

#include <gtest/gtest.h>

#include <ctime>

int main(int argc, char** argv)
{
    // A zone far from UTC, so a timestamp taken in UTC rather than local time shows up.
    qputenv("TZ", "XYZ-05:45");
    tzset();
    ::testing::InitGoogleTest(&argc, argv);
    QCoreApplication app(argc, argv); // event loop for queued signals
    return RUN_ALL_TESTS();
}
