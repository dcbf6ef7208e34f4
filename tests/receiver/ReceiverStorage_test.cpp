// The kept storage of receiver objects: blocks are reused, never handed back
// to the heap, and left untouched when given back.
#include "ReceiverStorage.h"

#include <cstring>
#include <new>
#include <vector>

#include <gtest/gtest.h>

namespace {

using receiver_state::giveBackReceiverStorage;
using receiver_state::receiverStorageBlocks;
using receiver_state::takeReceiverStorage;

TEST(ReceiverStorageTest, GivenBackBlockIsTheNextOneTaken)
{
    void* first = takeReceiverStorage(16);
    giveBackReceiverStorage(first);
    void* second = takeReceiverStorage(16);
    EXPECT_EQ(first, second);
    giveBackReceiverStorage(second);
}

TEST(ReceiverStorageTest, BlocksInUseAreNeverHandedOutTwice)
{
    std::vector<void*> taken;
    for (int i = 0; i < 5; ++i) {
        taken.push_back(takeReceiverStorage(16));
    }
    for (std::size_t i = 0; i < taken.size(); ++i) {
        for (std::size_t j = i + 1; j < taken.size(); ++j) {
            EXPECT_NE(taken[i], taken[j]);
        }
    }
    const std::size_t blocks = receiverStorageBlocks();
    EXPECT_GE(blocks, taken.size());
    for (void* block : taken) {
        giveBackReceiverStorage(block);
    }
    // Given back, they serve the next takers without new blocks.
    for (int i = 0; i < 5; ++i) {
        taken[i] = takeReceiverStorage(16);
    }
    EXPECT_EQ(blocks, receiverStorageBlocks());
    for (void* block : taken) {
        giveBackReceiverStorage(block);
    }
}

TEST(ReceiverStorageTest, GivingBackLeavesTheBytesOfTheBlockAsTheyWere)
{
    void* block = takeReceiverStorage(16);
    std::memset(block, 0x5a, 16);
    giveBackReceiverStorage(block);
    const unsigned char* bytes = static_cast<const unsigned char*>(block);
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(0x5a, bytes[i]) << "byte " << i;
    }
}

TEST(ReceiverStorageTest, SmallerBlockIsNotReusedForALargerRequest)
{
    void* small = takeReceiverStorage(8);
    giveBackReceiverStorage(small);
    void* large = takeReceiverStorage(64);
    std::memset(large, 0, 64);
    EXPECT_NE(small, large);
    giveBackReceiverStorage(large);
}

TEST(ReceiverStorageTest, BlockFromTheHeapGoesBackToTheHeap)
{
    // The leak checker of the sanitizer builds fails the test if it is kept.
    const std::size_t blocks = receiverStorageBlocks();
    giveBackReceiverStorage(::operator new(32));
    giveBackReceiverStorage(nullptr);
    EXPECT_EQ(blocks, receiverStorageBlocks());
}

}  // namespace
