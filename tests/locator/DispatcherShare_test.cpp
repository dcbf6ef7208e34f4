// The shared ownership of one entry's dispatcher: the entry and every send
// under way hold a share; the last one to let go deletes the dispatcher.
#include "CommsChannelDispatcher.h"
#include "DispatcherDeleters.h"
#include "DispatcherShare.h"
#include "TestUtil.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace {

class TrackedDispatcher final : public CommsChannelDispatcher {
public:
    explicit TrackedDispatcher(std::atomic<int>* deletions) : m_deletions(deletions) {}
    ~TrackedDispatcher() { ++*m_deletions; }
    int sendMsg(CommsChannel* /*sender*/, CommsChannelDataContainerMessage& /*message*/) override { return 1; }

private:
    std::atomic<int>* m_deletions;
};

class DispatcherShareTest : public testing::Test {
protected:
    DispatcherShareTest() { dispatcher_deleters::add<TrackedDispatcher>(); }

    // A share held by its creator, as a locator entry holds it.
    DispatcherShare* newShare() { return new DispatcherShare(new TrackedDispatcher(&deletions)); }

    std::atomic<int> deletions{0};
};

TEST_F(DispatcherShareTest, OnlyHolderLettingGoDeletesTheDispatcher)
{
    DispatcherShare* sut = newShare();

    sut->release();

    EXPECT_EQ(1, deletions.load());
}

TEST_F(DispatcherShareTest, DispatcherOutlivesTheFirstHolderWhileASendHoldsIt)
{
    DispatcherShare* sut = newShare();
    sut->acquire();  // a send

    sut->release();  // the entry goes
    EXPECT_EQ(0, deletions.load());
    sut->release();  // the send returns

    EXPECT_EQ(1, deletions.load());
}

TEST_F(DispatcherShareTest, WaitForSoleHolderReturnsAtOnceWhenNobodyElseHolds)
{
    DispatcherShare* sut = newShare();

    sut->waitUntilSoleHolder();

    EXPECT_EQ(0, deletions.load());
    sut->release();
    EXPECT_EQ(1, deletions.load());
}

TEST_F(DispatcherShareTest, WaitForSoleHolderEndsWhenTheLastSendLetsGo)
{
    DispatcherShare* sut = newShare();
    sut->acquire();
    sut->acquire();
    std::atomic<bool> waited{false};
    std::thread waiter([&] {
        sut->waitUntilSoleHolder();
        waited = true;
        sut->release();
    });

    sut->release();
    EXPECT_FALSE(cctest::waitUntil([&] { return waited.load(); }, 200));
    sut->release();
    EXPECT_TRUE(cctest::waitUntil([&] { return waited.load(); }, 20000));
    waiter.join();

    EXPECT_EQ(1, deletions.load());
}

}  // namespace
