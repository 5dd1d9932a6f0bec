// The reply framer's state table: counted replies, the terminator rule for unknown first bytes,
// and the command table.
#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

#include "quelworks/serial/receive_buffer.h"

namespace {

using Reply = std::vector<unsigned char>;

// Feeds the bytes one by one and returns every result, empty or not.
std::vector<Reply> feed(ReceiveBuffer& framer, std::initializer_list<unsigned char> bytes) {
    std::vector<Reply> results;
    for (unsigned char b : bytes) results.push_back(framer.AddToBuffer(b));
    return results;
}

TEST(ReceiveBuffer, CountedRepliesCompleteAtTheirLength) {
    ReceiveBuffer framer;
    EXPECT_EQ(framer.AddCommand(0x10, 3), 1);
    EXPECT_EQ(framer.AddCommand(0x20, 1), 1);
    EXPECT_EQ(feed(framer, {0x10, 0x01, 0x02}), (std::vector<Reply>{{}, {}, {0x10, 0x01, 0x02}}));
    // A one-byte reply comes back at once; counting restarts after every reply, and a command
    // byte inside a counted reply is just data.
    EXPECT_EQ(feed(framer, {0x20, 0x10, 0x20, 0x10}),
              (std::vector<Reply>{{0x20}, {}, {}, {0x10, 0x20, 0x10}}));
}

TEST(ReceiveBuffer, DuplicateAndDeletedCommands) {
    ReceiveBuffer framer;
    EXPECT_EQ(framer.AddCommand(0x10, 3), 1);
    EXPECT_EQ(framer.AddCommand(0x10, 2), 0);  // the first entry stays
    EXPECT_EQ(feed(framer, {0x10, 0xAA, 0xBB}), (std::vector<Reply>{{}, {}, {0x10, 0xAA, 0xBB}}));

    framer.DeleteCommand(0x55);  // absent: nothing changes
    EXPECT_EQ(feed(framer, {0x10, 0xAA, 0xBB}).back(), (Reply{0x10, 0xAA, 0xBB}));

    // Deleting while a reply is being collected does not disturb it.
    EXPECT_TRUE(framer.AddToBuffer(0x10).empty());
    framer.DeleteCommand(0x10);
    EXPECT_TRUE(framer.AddToBuffer(0x01).empty());
    EXPECT_EQ(framer.AddToBuffer(0x02), (Reply{0x10, 0x01, 0x02}));
    // Now 0x10 is unknown and pairs with the next byte (empty terminator).
    EXPECT_EQ(feed(framer, {0x10, 0x01}), (std::vector<Reply>{{}, {0x10, 0x01}}));
    // The entry can be added again, with another length.
    EXPECT_EQ(framer.AddCommand(0x10, 2), 1);
    EXPECT_EQ(feed(framer, {0x10, 0x07}), (std::vector<Reply>{{}, {0x10, 0x07}}));
}

TEST(ReceiveBuffer, UnknownBytesPairUpWithTheEmptyTerminator) {
    ReceiveBuffer framer;
    EXPECT_EQ(feed(framer, {0x41, 0x42, 0x43}), (std::vector<Reply>{{}, {0x41, 0x42}, {}}));
    EXPECT_EQ(framer.AddToBuffer(0x00), (Reply{0x43, 0x00}));
    // A registered byte right after an unknown one is part of the pair, not a new reply.
    framer.AddCommand(0x20, 1);
    EXPECT_EQ(feed(framer, {0x41, 0x20, 0x20}), (std::vector<Reply>{{}, {0x41, 0x20}, {0x20}}));
}

TEST(ReceiveBuffer, UnknownBytesAreDroppedWithATerminator) {
    ReceiveBuffer framer;
    framer.Terminator = "\r\n";
    for (unsigned char b : {0x41, 0x0D, 0x0A, 0x00, 0x42})
        EXPECT_TRUE(framer.AddToBuffer(b).empty());
    // Registered commands still work, and their length is not cut by the terminator.
    framer.AddCommand(0x10, 4);
    EXPECT_EQ(feed(framer, {0x10, 0x0D, 0x0A, 0x01}),
              (std::vector<Reply>{{}, {}, {}, {0x10, 0x0D, 0x0A, 0x01}}));
}

TEST(ReceiveBuffer, ZeroAndNegativeLengths) {
    ReceiveBuffer framer;
    framer.AddCommand(0x30, 0);  // remaining -1: treated as unknown
    EXPECT_EQ(feed(framer, {0x30, 0x31}), (std::vector<Reply>{{}, {0x30, 0x31}}));
    framer.Terminator = "x";
    EXPECT_TRUE(framer.AddToBuffer(0x30).empty());  // dropped like any unknown byte
    framer.Terminator = "";

    // A negative remaining count other than -1 never completes: everything stays collected.
    framer.AddCommand(0x40, -3);
    for (int i = 0; i < 200; ++i) EXPECT_TRUE(framer.AddToBuffer(i == 0 ? 0x40 : 0x30).empty());
}

TEST(ReceiveBuffer, CopiesAndMovesCarryTheStateAlong) {
    ReceiveBuffer framer;
    framer.AddCommand(0x10, 3);
    framer.AddToBuffer(0x10);
    ReceiveBuffer copy(framer);
    EXPECT_TRUE(copy.AddToBuffer(0x01).empty());
    EXPECT_EQ(copy.AddToBuffer(0x02), (Reply{0x10, 0x01, 0x02}));
    // The source still has its own half reply.
    EXPECT_TRUE(framer.AddToBuffer(0x05).empty());

    ReceiveBuffer moved(std::move(framer));
    EXPECT_EQ(moved.AddToBuffer(0x06), (Reply{0x10, 0x05, 0x06}));
    // The moved-from framer has an empty table and buffer: 0x10 is unknown there now.
    EXPECT_TRUE(framer.AddToBuffer(0x10).empty());  // NOLINT(bugprone-use-after-move)

    ReceiveBuffer assigned;
    assigned = copy;
    EXPECT_EQ(feed(assigned, {0x10, 1, 2}).back(), (Reply{0x10, 1, 2}));
    assigned = ReceiveBuffer();
    EXPECT_EQ(feed(assigned, {0x10, 1}).back(), (Reply{0x10, 1}));
}

}  // namespace
