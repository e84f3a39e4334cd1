// The example web client in headless Chromium against the built service on a private PC/SC
// stack. The page is driven by drive_web_client.py, which reports what the page shows one
// word a line; the test acts on the service and the readers between those reports.
#include "ServiceFixture.h"

#include <QDateTime>
#include <QProcess>

#include <gtest/gtest.h>

#include <iostream>

namespace {

// Chromium's first start on a loaded two-core machine, and the service's ~15 s reader refresh.
constexpr int stepTimeoutMs = 90000;

class WebClientInBrowser : public ServiceFixture
{
protected:
    void SetUp() override
    {
        ServiceFixture::SetUp();
        startPcscd();
        ASSERT_TRUE(service.start());
    }

    void TearDown() override
    {
        // SIGTERM lets the driver close Chromium and remove its profile; SIGKILL only if it hangs.
        if (page.state() != QProcess::NotRunning) {
            page.terminate();
            if (!page.waitForFinished(20000)) {
                page.kill();
                page.waitForFinished();
            }
        }
        if (HasFailure()) {
            std::cerr << "Page driver output:\n" << pageOutput.constData() << page.readAllStandardError().constData()
                      << "\nService log:\n" << service.appLog().toStdString() << std::endl;
            // A sanitizer report comes at exit, on standard error only.
            if (service.waitForExit(0))
                std::cerr << "Service standard error:\n" << service.standardError().toStdString() << std::endl;
        }
    }

    void openPage(const QStringList& extraArguments)
    {
        const QString screenshot = QStringLiteral(TIV_SCREENSHOT_DIR "/web-client-%1.png")
                                       .arg(::testing::UnitTest::GetInstance()->current_test_info()->name());
        QStringList arguments{QStringLiteral(TIV_PAGE_DRIVER),
                              QStringLiteral("--port"), QString::number(port),
                              QStringLiteral("--cert"), certificate.certFile(),
                              QStringLiteral("--reader"), pcscd.readerName(0),
                              QStringLiteral("--reader"), pcscd.readerName(1),
                              QStringLiteral("--version"), QStringLiteral(TIV_SERVICE_VERSION),
                              QStringLiteral("--screenshot"), screenshot,
                              QStringLiteral("--step-timeout"), QString::number(stepTimeoutMs)};
        page.start(QStringLiteral(TIV_PYTHON3), arguments + extraArguments);
        ASSERT_TRUE(page.waitForStarted()) << "python3 is needed for the browser tests: "
                                           << page.errorString().toStdString();
    }

    // Waits for the driver to report `step`; false if it ends or stays silent instead.
    bool waitForStep(const QByteArray& step, int timeoutMs = stepTimeoutMs)
    {
        const qint64 deadline = QDateTime::currentMSecsSinceEpoch() + timeoutMs;
        for (;;) {
            while (page.canReadLine()) {
                const QByteArray line = page.readLine();
                pageOutput += line;
                if (line.trimmed() == step)
                    return true;
            }
            const qint64 left = deadline - QDateTime::currentMSecsSinceEpoch();
            if (left <= 0 || page.state() == QProcess::NotRunning)
                return false;
            page.waitForReadyRead(static_cast<int>(qMin<qint64>(left, 1000)));
        }
    }

    QProcess page;
    QByteArray pageOutput;
};

TEST_F(WebClientInBrowser, ShowsTheReadersTheVersionAndATagLaidOnAReader)
{
    openPage({QStringLiteral("--tag"), QStringLiteral("04a10b7f")});
    ASSERT_TRUE(waitForStep("READY"));

    auto card = layOn(0, tag("04a10b7f"));
    ASSERT_TRUE(waitForStep("SEEN"));
    ASSERT_TRUE(page.waitForFinished(stepTimeoutMs));
    EXPECT_EQ(page.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(page.exitCode(), 0);
}

} // namespace
