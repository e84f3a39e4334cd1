#include "DemoCommand.h"

#include <gtest/gtest.h>

namespace {

using Kind = DemoCommand::Kind;

TEST(DemoCommand, CardCommandsNameTheReaderAndTheMessageToExpect)
{
    const DemoCommand tag = DemoCommand::parse("tag 1 04:A1:0B:7F");
    EXPECT_EQ(tag.kind, Kind::Tag);
    EXPECT_EQ(tag.reader, 1);
    EXPECT_EQ(tag.messageType(), QStringLiteral("TAG"));
    // The service reports ids in lower case without separators; a mismatch here would make
    // the demo wait in vain for a message that did come.
    EXPECT_EQ(tag.idText(), QStringLiteral("04a10b7f"));

    const DemoCommand acos = DemoCommand::parse("  acos 0 01 02 03 04 05 06 07 08\r");
    EXPECT_EQ(acos.kind, Kind::Acos);
    EXPECT_EQ(acos.reader, 0);
    EXPECT_EQ(acos.messageType(), QStringLiteral("SC"));
    EXPECT_EQ(acos.idText(), QStringLiteral("0102030405060708"));

    const DemoCommand remove = DemoCommand::parse("remove 1");
    EXPECT_EQ(remove.kind, Kind::Remove);
    EXPECT_EQ(remove.reader, 1);
}

// Each of these would otherwise lay a card the service cannot report, or none at all.
TEST(DemoCommand, RefusesWhatNoCardOrReaderCouldBe)
{
    for (const char* line : {"tag 2 04a10b7f", "tag x 04a10b7f", "tag 04a10b7f", "tag 0", "tag 0 04a1b",
                             "tag 0 0102030405060708ff", "acos 1 01020304050607", "acos 1 010203040506070809",
                             "acos 1 zz02030405060708", "remove", "remove 0 now", "lay 0 04a10b7f"}) {
        SCOPED_TRACE(line);
        const DemoCommand command = DemoCommand::parse(line);
        EXPECT_EQ(command.kind, Kind::Invalid);
        EXPECT_FALSE(command.problem.empty());
    }
}

TEST(DemoCommand, CommentsAndBlankLinesAreSkippedQuietly)
{
    for (const char* line : {"", "   ", "\r", "# tag 0 04a10b7f", "#"}) {
        SCOPED_TRACE(line);
        EXPECT_EQ(DemoCommand::parse(line).kind, Kind::None);
    }
    EXPECT_EQ(DemoCommand::parse("quit").kind, Kind::Quit);
    EXPECT_EQ(DemoCommand::parse("exit\r").kind, Kind::Quit);
    EXPECT_EQ(DemoCommand::parse("help").kind, Kind::Help);
}

} // namespace
