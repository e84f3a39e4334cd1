#include "PrintQString.h"
#include "RemovedCommand.h"
#include "SCCommand.h"
#include "TagCommand.h"

#include <gtest/gtest.h>

TEST(MessageText, Protocol2CardMessagesAddTheReaderRepeatAndSeq)
{
    EXPECT_EQ(TagCommand::buildVersion2(QStringLiteral("1289593183"), QStringLiteral("4cdda15f"),
                                        CardReport{QStringLiteral("Entrance"), false, 7}),
              "{\n    \"error\": null,\n    \"reader\": \"Entrance\",\n    \"repeat\": false,\n    \"seq\": 7,\n"
              "    \"tag_id\": \"1289593183\",\n    \"type\": \"TAG\",\n    \"uid\": \"4cdda15f\"\n}\n");
    EXPECT_EQ(SCCommand::buildVersion2(QStringLiteral("0102030405060708"),
                                       CardReport{QStringLiteral("Desk"), true, 123456}),
              "{\n    \"error\": null,\n    \"reader\": \"Desk\",\n    \"repeat\": true,\n"
              "    \"seq\": 123456,\n    \"tag_id\": \"0102030405060708\",\n    \"type\": \"SC\"\n}\n");
    EXPECT_EQ(RemovedCommand::build(QStringLiteral("4cdda15f"), QStringLiteral("Entrance"), 8),
              "{\n    \"error\": null,\n    \"reader\": \"Entrance\",\n    \"seq\": 8,\n"
              "    \"tag_id\": \"4cdda15f\",\n    \"type\": \"REMOVED\"\n}\n");
}
