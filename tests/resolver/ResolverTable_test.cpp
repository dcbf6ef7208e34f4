// The resolver's table: names, owners and locators.
#include "ResolverTable.h"

#include <gtest/gtest.h>

namespace {

TEST(ResolverTableTest, AddedNameHasItsPortAndOwner)
{
    resolver::ResolverTable sut;
    EXPECT_TRUE(sut.addChannel("alpha", 41001, 40001));
    ASSERT_NE(nullptr, sut.find("alpha"));
    EXPECT_EQ(41001, sut.find("alpha")->port);
    EXPECT_EQ(40001, sut.find("alpha")->ownerPort);
}

TEST(ResolverTableTest, UnknownNameHasPortZero)
{
    resolver::ResolverTable sut;
    EXPECT_EQ(0, sut.portOf("nobody"));
    EXPECT_EQ(nullptr, sut.find("nobody"));
}

TEST(ResolverTableTest, AddingTheSameRowAgainIsNoChange)
{
    resolver::ResolverTable sut;
    sut.addChannel("alpha", 41001, 40001);
    EXPECT_FALSE(sut.addChannel("alpha", 41001, 40001));
    EXPECT_TRUE(sut.addChannel("alpha", 41001, 40002));
    EXPECT_TRUE(sut.addChannel("alpha", 41002, 40002));
}

TEST(ResolverTableTest, RemoveReportsWhetherTheNameWasThere)
{
    resolver::ResolverTable sut;
    sut.addChannel("alpha", 41001, 40001);
    EXPECT_TRUE(sut.removeChannel("alpha"));
    EXPECT_FALSE(sut.removeChannel("alpha"));
}

TEST(ResolverTableTest, ChannelsOwnedByListsOnlyThatOwnersNamesInOrder)
{
    resolver::ResolverTable sut;
    sut.addChannel("gamma", 3, 40001);
    sut.addChannel("alpha", 1, 40001);
    sut.addChannel("beta", 2, 40002);
    EXPECT_EQ((std::vector<std::string>{"alpha", "gamma"}), sut.channelsOwnedBy(40001));
    EXPECT_TRUE(sut.channelsOwnedBy(40009).empty());
}

TEST(ResolverTableTest, LocatorsAreASet)
{
    resolver::ResolverTable sut;
    EXPECT_TRUE(sut.addLocator(40001));
    EXPECT_FALSE(sut.addLocator(40001));
    EXPECT_TRUE(sut.hasLocator(40001));
    EXPECT_TRUE(sut.removeLocator(40001));
    EXPECT_FALSE(sut.removeLocator(40001));
    EXPECT_FALSE(sut.hasLocator(40001));
}

TEST(ResolverTableTest, TablesDifferingInOneFieldAreUnequal)
{
    resolver::ResolverTable first;
    first.addLocator(40001);
    first.addChannel("alpha", 1, 40001);
    resolver::ResolverTable second = first;
    EXPECT_EQ(first, second);
    second.addChannel("alpha", 1, 40002);
    EXPECT_NE(first, second);
    second = first;
    second.addLocator(40002);
    EXPECT_NE(first, second);
}

}  // namespace
