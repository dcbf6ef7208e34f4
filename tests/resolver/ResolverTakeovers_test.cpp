// The registrations kept after a takeover: which one comes back, and what
// makes the resolver forget one.
#include "ResolverTakeovers.h"

#include <gtest/gtest.h>

namespace {

const int OWNER_A = 40001;
const int OWNER_B = 40002;
const int PORT_A = 41001;
const int PORT_B = 41002;

class ResolverTakeoversTest : public ::testing::Test {
protected:
    // The port of the registration taken back for name, or 0 when none is kept.
    int takeBack(const std::string& name)
    {
        resolver::ChannelRecord record{0, 0};
        return sut.takeBack(name, &record) ? record.port : 0;
    }

    resolver::ResolverTakeovers sut;
};

TEST_F(ResolverTakeoversTest, NothingKeptGivesNothingBack) { EXPECT_EQ(0, takeBack("alpha")); }

TEST_F(ResolverTakeoversTest, LatestReplacedRegistrationComesBackFirstAndOnlyOnce)
{
    sut.remember("alpha", resolver::ChannelRecord{PORT_A, OWNER_A});
    sut.remember("alpha", resolver::ChannelRecord{PORT_B, OWNER_B});
    EXPECT_EQ(PORT_B, takeBack("alpha"));
    EXPECT_EQ(PORT_A, takeBack("alpha"));
    EXPECT_EQ(0, takeBack("alpha"));
    EXPECT_TRUE(sut.empty());
}

TEST_F(ResolverTakeoversTest, OwnerKeepsOnlyItsLatestRegistrationOfAName)
{
    sut.remember("alpha", resolver::ChannelRecord{PORT_A, OWNER_A});
    sut.remember("alpha", resolver::ChannelRecord{PORT_B, OWNER_A});
    EXPECT_EQ(PORT_B, takeBack("alpha"));
    EXPECT_EQ(0, takeBack("alpha"));
}

TEST_F(ResolverTakeoversTest, ForgottenOwnerGetsNothingBack)
{
    sut.remember("alpha", resolver::ChannelRecord{PORT_A, OWNER_A});
    sut.remember("beta", resolver::ChannelRecord{PORT_A, OWNER_A});
    sut.remember("gamma", resolver::ChannelRecord{PORT_B, OWNER_B});
    sut.forget("alpha", OWNER_A);
    sut.forgetOwner(OWNER_B);
    EXPECT_EQ(0, takeBack("alpha"));
    EXPECT_EQ(0, takeBack("gamma"));
    EXPECT_EQ(PORT_A, takeBack("beta"));
}

TEST_F(ResolverTakeoversTest, RegistrationWhoseChannelOrLocatorPortIsUnboundIsDropped)
{
    sut.remember("alpha", resolver::ChannelRecord{PORT_A, OWNER_A});
    sut.remember("beta", resolver::ChannelRecord{PORT_B, OWNER_B});
    sut.remember("gamma", resolver::ChannelRecord{PORT_A, OWNER_A});
    sut.keepBound({PORT_A, OWNER_A, OWNER_B});
    EXPECT_EQ(PORT_A, takeBack("alpha"));
    EXPECT_EQ(0, takeBack("beta"));
    sut.keepBound({PORT_A});
    EXPECT_EQ(0, takeBack("gamma"));
}

}  // namespace
