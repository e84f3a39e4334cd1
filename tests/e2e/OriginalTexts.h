#pragma once

#include <QString>

#include <string>

// The texts clients of the original protocol receive, byte for byte.
namespace OriginalTexts {

inline std::string card(const char* type, const QString& id)
{
    return QStringLiteral("{\n    \"error\": null,\n    \"tag_id\": \"%1\",\n    \"type\": \"%2\"\n}\n")
        .arg(id, QLatin1String(type))
        .toStdString();
}

inline std::string reader(const QString& name, bool connected)
{
    return QStringLiteral("{\n    \"error\": null,\n    \"event\": \"%1\",\n    \"name\": \"%2\",\n"
                          "    \"type\": \"READER\"\n}\n")
        .arg(connected ? QStringLiteral("CONNECTED") : QStringLiteral("DISCONNECTED"), name)
        .toStdString();
}

inline const std::string version = "{\n    \"error\": null,\n    \"type\": \"VERSION\",\n    \"version\": \"0.25\"\n}\n";

} // namespace OriginalTexts
