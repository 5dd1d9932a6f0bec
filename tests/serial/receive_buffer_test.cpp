// The reply framer's state table: counted replies, the terminator rule for unknown first bytes,
// and the command table.
#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

#include "quelworks/serial/receive_buffer.h"

namespace {

using Replies = std::vector<std::vector<unsigned char>>;

// Feeds the bytes one by one and returns every result, empty or not.
Replies feed(ReceiveBuffer& framer, std::initializer_list<unsigned char> bytes) {
    Replies results;
    for (unsigned char b : bytes) results.push_back(framer.AddToBuffer(b));
    return results;
}

TEST(ReceiveBuffer, CountedRepliesAndTheCommandTable) {
    ReceiveBuffer framer;
    EXPECT_EQ(framer.AddCommand(0x10, 3), 1);
    EXPECT_EQ(framer.AddCommand(0x10, 2), 0);  // the first entry stays
    EXPECT_EQ(framer.AddCommand(0x20, 1), 1);
    // A one-byte reply comes back at once; a command byte inside a counted reply is just data.
    EXPECT_EQ(feed(framer, {0x10, 0x01, 0x02, 0x20, 0x10, 0x20, 0x10}),
              (Replies{{}, {}, {0x10, 0x01, 0x02}, {0x20}, {}, {}, {0x10, 0x20, 0x10}}));
    // Deleting an entry while its reply is collected does not disturb that reply; afterwards the
    // byte is unknown and pairs with the next one.
    framer.AddToBuffer(0x10);
    framer.DeleteCommand(0x55);
    framer.DeleteCommand(0x10);
    EXPECT_EQ(feed(framer, {0x01, 0x02, 0x10, 0x01}),
              (Replies{{}, {0x10, 0x01, 0x02}, {}, {0x10, 0x01}}));
    EXPECT_EQ(framer.AddCommand(0x10, 2), 1);
}

TEST(ReceiveBuffer, UnknownBytesPairWithAnEmptyTerminatorAndAreDroppedWithOthers) {
    ReceiveBuffer framer;
    framer.AddCommand(0x20, 1);
    // A registered byte right after an unknown one is part of the pair, not a new reply.
    EXPECT_EQ(feed(framer, {0x41, 0x42, 0x43, 0x00, 0x41, 0x20, 0x20}),
              (Replies{{}, {0x41, 0x42}, {}, {0x43, 0x00}, {}, {0x41, 0x20}, {0x20}}));
    framer.Terminator = "\r\n";
    framer.AddCommand(0x10, 4);
    // Counted replies are not cut by the terminator.
    EXPECT_EQ(feed(framer, {0x41, 0x0D, 0x0A, 0x00, 0x10, 0x0D, 0x0A, 0x01}),
              (Replies{{}, {}, {}, {}, {}, {}, {}, {0x10, 0x0D, 0x0A, 0x01}}));
}

TEST(ReceiveBuffer, ZeroAndNegativeLengths) {
    ReceiveBuffer framer;
    framer.AddCommand(0x30, 0);  // remaining -1: treated as unknown
    EXPECT_EQ(feed(framer, {0x30, 0x31}), (Replies{{}, {0x30, 0x31}}));
    // A negative remaining count other than -1 never completes: everything stays collected.
    framer.AddCommand(0x40, -3);
    for (int i = 0; i < 200; ++i) EXPECT_TRUE(framer.AddToBuffer(i == 0 ? 0x40 : 0x30).empty());
}

}  // namespace
