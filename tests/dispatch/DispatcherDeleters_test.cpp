// Dispatchers have no virtual destructor; owners delete them through the
// class they were created as, found from their typeid.
#include "CommsChannelDispatcher.h"
#include "DispatcherDeleters.h"

#include <gtest/gtest.h>

namespace {

class CountedDispatcher final : public CommsChannelDispatcher {
public:
    explicit CountedDispatcher(int* deletions) : m_deletions(deletions) {}
    ~CountedDispatcher() { ++*m_deletions; }
    int sendMsg(CommsChannel* /*sender*/, CommsChannelDataContainerMessage& /*message*/) override { return 0; }

private:
    int* m_deletions;
};

class UnknownDispatcher final : public CommsChannelDispatcher {
public:
    int sendMsg(CommsChannel* /*sender*/, CommsChannelDataContainerMessage& /*message*/) override { return 0; }
};

TEST(DispatcherDeletersTest, EveryLibraryDispatcherIsDeletedThroughItsOwnClass)
{
    EXPECT_TRUE(dispatcher_deleters::destroy(new CCIntraProcDispatcher(nullptr)));
    EXPECT_TRUE(dispatcher_deleters::destroy(new CCInterProcDispatcher(40000)));
    EXPECT_TRUE(dispatcher_deleters::destroy(new CCDistribProcDispatcher()));
    EXPECT_TRUE(dispatcher_deleters::destroy(new CCNullDispatcher()));
}

TEST(DispatcherDeletersTest, NullIsNothingToDelete) { EXPECT_TRUE(dispatcher_deleters::destroy(nullptr)); }

TEST(DispatcherDeletersTest, AddedClassIsDeletedThroughItsOwnClass)
{
    int deletions = 0;
    dispatcher_deleters::add<CountedDispatcher>();
    dispatcher_deleters::add<CountedDispatcher>();

    EXPECT_TRUE(dispatcher_deleters::destroy(new CountedDispatcher(&deletions)));

    EXPECT_EQ(1, deletions);
}

TEST(DispatcherDeletersTest, ClassNobodyAddedIsLeftAloneRatherThanDeletedThroughTheWrongType)
{
    UnknownDispatcher* unknown = new UnknownDispatcher();

    EXPECT_FALSE(dispatcher_deleters::destroy(unknown));

    delete unknown;
}

}  // namespace
