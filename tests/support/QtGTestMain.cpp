#include <QCoreApplication>

#include <gtest/gtest.h>

// GoogleTest entry point for tests that need a Qt application object (event loops,
// QProcess, queued connections across threads).
int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
