#pragma once

#include <QJsonObject>
#include <QString>

// The "TAG" message: an RFID tag was laid on a reader.
class TagCommand
{
public:
    TagCommand();
    ~TagCommand();

    static QJsonObject build(QString const& tagId);

private:
    QString tagId;
};
