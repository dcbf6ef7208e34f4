// Finding the process that holds a socket, in a fake /proc tree and in the
// real one.
#include "ProcSocketOwners.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

namespace {

TEST(ParseSocketLinkTest, SocketLinkGivesItsInode)
{
    std::uint64_t inode = 0;
    ASSERT_TRUE(resolver::parseSocketLink("socket:[4026532]", &inode));
    EXPECT_EQ(4026532u, inode);
}

TEST(ParseSocketLinkTest, OtherLinksAreRefused)
{
    std::uint64_t inode = 7;
    EXPECT_FALSE(resolver::parseSocketLink("pipe:[123]", &inode));
    EXPECT_FALSE(resolver::parseSocketLink("socket:[]", &inode));
    EXPECT_FALSE(resolver::parseSocketLink("socket:[12a]", &inode));
    EXPECT_FALSE(resolver::parseSocketLink("socket:[123", &inode));
    EXPECT_FALSE(resolver::parseSocketLink("socket:123", &inode));
    EXPECT_FALSE(resolver::parseSocketLink("/dev/null", &inode));
    EXPECT_EQ(7u, inode);
}

class FakeProcTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/cc-procfd-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        root = pattern;
    }
    void TearDown() override
    {
        for (auto it = made.rbegin(); it != made.rend(); ++it) {
            std::remove(it->c_str());
        }
        rmdir(root.c_str());
    }
    // Gives process pid a descriptor fd linking to target.
    void link(const std::string& pid, int fd, const std::string& target)
    {
        makeDirectory(root + "/" + pid);
        makeDirectory(root + "/" + pid + "/fd");
        const std::string path = root + "/" + pid + "/fd/" + std::to_string(fd);
        ASSERT_EQ(0, symlink(target.c_str(), path.c_str()));
        made.push_back(path);
    }
    void makeDirectory(const std::string& path)
    {
        if (mkdir(path.c_str(), 0700) == 0) {
            made.push_back(path);
        }
    }
    std::string root;
    std::vector<std::string> made;
};

TEST_F(FakeProcTest, WantedSocketIsCreditedToTheProcessHoldingIt)
{
    link("100", 3, "socket:[555]");
    link("100", 4, "socket:[556]");
    link("200", 5, "socket:[777]");
    link("200", 6, "pipe:[555]");
    const std::map<std::uint64_t, int> owners = resolver::findSocketOwners({555, 777, 999}, root);
    EXPECT_EQ((std::map<std::uint64_t, int>{{555, 100}, {777, 200}}), owners);
}

TEST_F(FakeProcTest, SharedSocketGoesToTheLowestPid)
{
    link("300", 3, "socket:[555]");
    link("20", 7, "socket:[555]");
    link("1000", 3, "socket:[555]");
    EXPECT_EQ((std::map<std::uint64_t, int>{{555, 20}}), resolver::findSocketOwners({555}, root));
}

TEST_F(FakeProcTest, EntriesThatAreNotPidsAreSkipped)
{
    link("self", 3, "socket:[555]");
    link("12x", 3, "socket:[555]");
    EXPECT_TRUE(resolver::findSocketOwners({555}, root).empty());
}

TEST(ProcSocketOwnersLiveTest, OwnSocketBelongsToThisProcess)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    struct stat status;
    ASSERT_EQ(0, fstat(fd, &status));
    const std::map<std::uint64_t, int> owners =
        resolver::findSocketOwners({static_cast<std::uint64_t>(status.st_ino)});
    close(fd);
    ASSERT_EQ(1u, owners.size());
    EXPECT_EQ(getpid(), owners.begin()->second);
}

}  // namespace
