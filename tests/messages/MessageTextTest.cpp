#include "ReaderCommand.h"
#include "SCCommand.h"
#include "TagCommand.h"
#include "VersionCommand.h"

#include <QJsonDocument>
#include <QStringList>

#include <gtest/gtest.h>

#include <ostream>

// Readable failure messages instead of byte dumps.
inline void PrintTo(const QString& value, std::ostream* out)
{
    *out << '"' << value.toStdString() << '"';
}

namespace {

// Clients receive exactly this: the indented document, decoded as UTF-8.
QString text(const QJsonObject& message)
{
    return QString::fromUtf8(QJsonDocument(message).toJson());
}

QJsonObject parsed(const QJsonObject& message)
{
    return QJsonDocument::fromJson(text(message).toUtf8()).object();
}

} // namespace

TEST(MessageText, EachKindHasItsExactText)
{
    EXPECT_EQ(text(TagCommand::build(QStringLiteral("04a1b2c3"))),
              "{\n    \"error\": null,\n    \"tag_id\": \"04a1b2c3\",\n    \"type\": \"TAG\"\n}\n");
    EXPECT_EQ(text(SCCommand::build(QStringLiteral("0102030405060708"))),
              "{\n    \"error\": null,\n    \"tag_id\": \"0102030405060708\",\n"
              "    \"type\": \"SC\"\n}\n");
    EXPECT_EQ(text(ReaderCommand::build(QStringLiteral("Reader A"), true)),
              "{\n    \"error\": null,\n    \"event\": \"CONNECTED\",\n    \"name\": \"Reader A\",\n"
              "    \"type\": \"READER\"\n}\n");
    EXPECT_EQ(text(VersionCommand::build(QStringLiteral("0.25"))),
              "{\n    \"error\": null,\n    \"type\": \"VERSION\",\n    \"version\": \"0.25\"\n}\n");
    EXPECT_EQ(parsed(ReaderCommand::build(QStringLiteral("Reader A"), false))["event"],
              QStringLiteral("DISCONNECTED"));
}

TEST(MessageText, ReaderNameSurvivesEscaping)
{
    const QString name = QStringLiteral("ACME \"Dual\" Reader \\ 01 \u00e9");
    const QString serialised = text(ReaderCommand::build(name, true));

    EXPECT_TRUE(serialised.contains(
        QStringLiteral("\"name\": \"ACME \\\"Dual\\\" Reader \\\\ 01 \u00e9\"")))
        << serialised.toStdString();
    EXPECT_EQ(parsed(ReaderCommand::build(name, true))["name"].toString(), name);
}

TEST(MessageText, EmptyArgumentsStayStringsAndErrorIsAlwaysNull)
{
    const std::pair<QJsonObject, QString> cases[] = {
        {TagCommand::build(QString()), "tag_id"},
        {SCCommand::build(QString()), "tag_id"},
        {ReaderCommand::build(QString(), false), "name"},
        {VersionCommand::build(QString()), "version"},
    };
    for (const auto& [message, key] : cases) {
        const QJsonObject back = parsed(message);
        EXPECT_EQ(back.size(), message.size());
        EXPECT_TRUE(back["error"].isNull());
        // Clients test the type as well as the value: an empty argument must not become null.
        EXPECT_TRUE(back[key].isString()) << key.toStdString();
        EXPECT_EQ(back[key].toString(), QString());
    }
}
