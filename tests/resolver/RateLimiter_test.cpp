// One line per interval, with a count of what was held back.
#include "RateLimiter.h"

#include <gtest/gtest.h>

namespace {

class RateLimiterTest : public ::testing::Test {
protected:
    resolver::RateLimiter sut{1000};
    unsigned long suppressed = 12345;
};

TEST_F(RateLimiterTest, FirstLineIsAllowedWithNothingSuppressed)
{
    EXPECT_TRUE(sut.allow(5000, &suppressed));
    EXPECT_EQ(0u, suppressed);
}

TEST_F(RateLimiterTest, LinesWithinTheIntervalAreRefused)
{
    sut.allow(5000, &suppressed);
    EXPECT_FALSE(sut.allow(5000, &suppressed));
    EXPECT_FALSE(sut.allow(5999, &suppressed));
}

TEST_F(RateLimiterTest, LineAfterTheIntervalIsAllowedWithTheRefusedCount)
{
    sut.allow(5000, &suppressed);
    sut.allow(5100, &suppressed);
    sut.allow(5200, &suppressed);
    sut.allow(5300, &suppressed);
    EXPECT_TRUE(sut.allow(6000, &suppressed));
    EXPECT_EQ(3u, suppressed);
}

TEST_F(RateLimiterTest, CountStartsAgainAfterEachAllowedLine)
{
    sut.allow(5000, &suppressed);
    sut.allow(5100, &suppressed);
    sut.allow(6000, &suppressed);
    EXPECT_TRUE(sut.allow(7000, &suppressed));
    EXPECT_EQ(0u, suppressed);
}

TEST_F(RateLimiterTest, IntervalCountsFromTheLastAllowedLineNotTheLastRefused)
{
    sut.allow(5000, &suppressed);
    sut.allow(5900, &suppressed);
    EXPECT_TRUE(sut.allow(6000, &suppressed));
}

}  // namespace
