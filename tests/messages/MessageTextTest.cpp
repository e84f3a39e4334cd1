#include "PrintQString.h"
#include "ReaderCommand.h"
#include "SCCommand.h"
#include "TagCommand.h"
#include "VersionCommand.h"

#include <gtest/gtest.h>

TEST(MessageText, EachKindHasItsExactText)
{
    EXPECT_EQ(TagCommand::build(QStringLiteral("04a1b2c3")),
              "{\n    \"error\": null,\n    \"tag_id\": \"04a1b2c3\",\n    \"type\": \"TAG\"\n}\n");
    EXPECT_EQ(SCCommand::build(QStringLiteral("0102030405060708")),
              "{\n    \"error\": null,\n    \"tag_id\": \"0102030405060708\",\n"
              "    \"type\": \"SC\"\n}\n");
    EXPECT_EQ(ReaderCommand::build(QStringLiteral("Reader A"), true),
              "{\n    \"error\": null,\n    \"event\": \"CONNECTED\",\n    \"name\": \"Reader A\",\n"
              "    \"type\": \"READER\"\n}\n");
    EXPECT_EQ(VersionCommand::build(QStringLiteral("0.25")),
              "{\n    \"error\": null,\n    \"type\": \"VERSION\",\n    \"version\": \"0.25\"\n}\n");
    EXPECT_TRUE(ReaderCommand::build(QStringLiteral("Reader A"), false).contains("\"event\": \"DISCONNECTED\""));
}
