#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

// A protocol 2 message in short: "TAG <reader> <tag_id> new|repeat uid=<uid> seq=<n>",
// "SC <reader> <tag_id> new|repeat seq=<n>", "REMOVED <reader> <tag_id> seq=<n>",
// "READER CONNECTED <name>", "VERSION".
inline QString protocol2Summary(const QString& text)
{
    const QJsonObject m = QJsonDocument::fromJson(text.toUtf8()).object();
    QString line = m.value("type").toString();
    if (line == "READER")
        line += " " + m.value("event").toString() + " " + m.value("name").toString();
    if (m.contains("reader"))
        line += " " + m.value("reader").toString() + " " + m.value("tag_id").toString();
    if (m.contains("repeat"))
        line += m.value("repeat").toBool() ? " repeat" : " new";
    if (m.contains("uid"))
        line += " uid=" + m.value("uid").toString();
    if (m.contains("seq"))
        line += " seq=" + QString::number(m.value("seq").toInt());
    return line;
}
