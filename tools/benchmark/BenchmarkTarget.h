#pragma once

#include <QString>
#include <QtGlobal>

// Where the service under test runs, and the virtual reader its taps go to.
struct BenchmarkTarget
{
    qint64 servicePid = 0;
    quint16 servicePort = 0;
    quint16 vpcdPort = 0;
    QString readerName;
};
