#include "WebSocketServiceCommon.h"

#include "Settings.h"

#include "Log.h"

#include <QFile>

WebSocketServiceCommon::WebSocketServiceCommon(QObject* parent) : QObject(parent) {}

WebSocketServiceCommon::~WebSocketServiceCommon() = default;

bool WebSocketServiceCommon::start()
{
    const QString certFile = Settings::Instance()->GetCertFile();
    const QString keyFile = Settings::Instance()->GetKeyFile();
    TLOG_DEBUG() << "Certfile:" << certFile;
    TLOG_DEBUG() << "Keyfile:" << keyFile;
    if (!QFile::exists(certFile) || !QFile::exists(keyFile)) {
        TLOG_ERROR() << "Unable to load certificate or key.";
        return false;
    }
    return true;
}

void WebSocketServiceCommon::stop()
{
    Settings::Instance()->SaveSettings();
}

void WebSocketServiceCommon::loadSettings() {}

void WebSocketServiceCommon::saveSettings()
{
    Settings::Instance()->SaveSettings();
}
