// A thread that sent since it last waited for a message is taken to expect
// an answer; its next wait keeps the processor briefly before it sleeps. These
// tests pin who is noted and that such a wait keeps every promise of an
// ordinary one.
#include "AnswerExpectation.h"
#include "ChannelTestHelpers.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"
#include "FakeResolver.h"
#include "TestUtil.h"

#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace {

TEST(AnswerExpectation, AThreadThatSentNothingExpectsNoAnswer)
{
    bool expected = true;
    std::thread fresh([&] { expected = answer_expectation::beginWait(); });
    fresh.join();
    EXPECT_FALSE(expected);
}

TEST(AnswerExpectation, OneSendIsNotedForTheNextWaitOnly)
{
    answer_expectation::beginWait();
    answer_expectation::noteSend();
    answer_expectation::noteSend();
    EXPECT_TRUE(answer_expectation::beginWait());
    EXPECT_FALSE(answer_expectation::beginWait());
}

TEST(AnswerExpectation, AnotherThreadsSendIsNotNotedHere)
{
    answer_expectation::beginWait();
    std::thread other([] { answer_expectation::noteSend(); });
    other.join();
    EXPECT_FALSE(answer_expectation::beginWait());
}

class AnswerExpectationChannelTest : public testing::Test {
protected:
    AnswerExpectationChannelTest() : sut("expecting"), peer("answering") {}
    void SetUp() override
    {
        ASSERT_TRUE(fakeResolver.ok());
        answer_expectation::beginWait();
    }

    channeltest::Watchdog watchdog;
    cctest::FakeResolver fakeResolver;
    CommsChannel sut;
    CommsChannel peer;
};

TEST_F(AnswerExpectationChannelTest, EverySendOverloadNotesTheSendingThread)
{
    char bytes[] = "bytes";
    CommsChannelDataContainerMessage prepared = channeltest::message("prepared");
    prepared.setChannel("answering");
    const std::function<int()> sends[] = {
        [&] { return sut.sendMsg("answering", std::string("text")); },
        [&] { return sut.sendMsg("answering", bytes, 5); },
        [&] { return sut.sendMsg(prepared); },
    };
    for (const std::function<int()>& send : sends) {
        ASSERT_EQ(1, send());
        EXPECT_TRUE(answer_expectation::beginWait());
    }
}

TEST_F(AnswerExpectationChannelTest, ASendThatFindsNoDestinationIsNotNoted)
{
    EXPECT_EQ(0, sut.sendMsg("nobody-here", std::string("lost")));
    EXPECT_FALSE(answer_expectation::beginWait());
}

TEST_F(AnswerExpectationChannelTest, ATimedReceiveRightAfterASendStillTimesOutOnTime)
{
    ASSERT_EQ(1, sut.sendMsg("answering", std::string("question")));
    CommsChannelDataContainerMessage out;
    const long long start = cctest::nowMs();
    EXPECT_THROW(sut.receiveMsg_ByID_Timed(out, 0, 30), CommsException);
    EXPECT_GE(cctest::nowMs() - start, 30);
    EXPECT_TRUE(sut.isQEmpty());
}

TEST_F(AnswerExpectationChannelTest, TheAnswerToARequestJustSentIsReceived)
{
    std::thread answerer([&] {
        CommsChannelDataContainerMessage question;
        if (peer.receiveMsg_ByID_Timed(question, 0, 20000) == 1) {
            peer.sendMsg(question.sourceChannel(), std::string("answer to ") + question.getData());
        }
    });
    ASSERT_EQ(1, sut.sendMsg("answering", std::string("question")));
    std::string answer;
    EXPECT_EQ(1, sut.receiveMsg(answer));
    EXPECT_EQ("answer to question", answer);
    answerer.join();
}

}  // namespace
