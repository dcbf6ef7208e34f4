// Packing update rows into datagrams: order, values and the size limit.
#include "ResolverUpdates.h"
#include "ResolverTestMessages.h"

#include <gtest/gtest.h>

using resolver::Encoding;
using resolver::UpdateRow;
using namespace resolvertest;

namespace {

class ResolverUpdatesTest : public ::testing::Test {
protected:
    // n rows named "channel-<i>" padded to nameLength bytes.
    static std::vector<UpdateRow> rows(int n, std::size_t nameLength = 20)
    {
        std::vector<UpdateRow> result;
        for (int i = 0; i < n; ++i) {
            std::string name = "channel-" + std::to_string(i);
            name.resize(std::max(nameLength, name.size()), '.');
            result.push_back(UpdateRow{i % 2, name, 10000 + i});
        }
        return result;
    }

    static std::vector<Row> decodedRows(const std::vector<Encoding>& updates)
    {
        std::vector<Row> all;
        for (const Encoding& update : updates) {
            std::vector<Row> part;
            EXPECT_TRUE(decodeUpdate(std::string(update.begin(), update.end()), &part));
            all.insert(all.end(), part.begin(), part.end());
        }
        return all;
    }

    static std::vector<Row> asRows(const std::vector<UpdateRow>& input)
    {
        std::vector<Row> result;
        for (const UpdateRow& row : input) {
            result.push_back(Row(row.type, row.name, row.port));
        }
        return result;
    }
};

TEST_F(ResolverUpdatesTest, NoRowsGiveOneUpdateWithoutRows)
{
    const std::vector<Encoding> updates = resolver::encodeUpdates({});
    ASSERT_EQ(1u, updates.size());
    EXPECT_TRUE(decodedRows(updates).empty());
}

TEST_F(ResolverUpdatesTest, FewRowsGoInOneUpdateInOrder)
{
    const std::vector<UpdateRow> input = rows(10);
    const std::vector<Encoding> updates = resolver::encodeUpdates(input);
    EXPECT_EQ(1u, updates.size());
    EXPECT_EQ(asRows(input), decodedRows(updates));
}

TEST_F(ResolverUpdatesTest, RowsBeyondTheLimitAreSplitIntoUpdatesWithinIt)
{
    const std::vector<UpdateRow> input = rows(5000, 40);
    const std::vector<Encoding> updates = resolver::encodeUpdates(input);
    EXPECT_GE(updates.size(), 4u);
    for (std::size_t i = 0; i < updates.size(); ++i) {
        EXPECT_LE(updates[i].size(), resolver::MAX_UPDATE_BYTES);
        // Every update but the last is filled up before the next begins.
        if (i + 1 < updates.size()) {
            EXPECT_GT(updates[i].size(), resolver::MAX_UPDATE_BYTES - 100);
        }
    }
    EXPECT_EQ(asRows(input), decodedRows(updates));
}

TEST_F(ResolverUpdatesTest, SmallLimitGivesOneRowPerUpdate)
{
    const std::vector<UpdateRow> input = rows(3, 20);
    const std::size_t oneRow = resolver::encodeUpdates({input[0]}).at(0).size();
    const std::vector<Encoding> updates = resolver::encodeUpdates(input, oneRow);
    EXPECT_EQ(3u, updates.size());
    EXPECT_EQ(asRows(input), decodedRows(updates));
}

TEST_F(ResolverUpdatesTest, RowTooLargeForAnyUpdateIsLeftOut)
{
    std::vector<UpdateRow> input = rows(2);
    input.insert(input.begin() + 1, UpdateRow{0, std::string(resolver::MAX_UPDATE_BYTES, 'x'), 1});
    const std::vector<Encoding> updates = resolver::encodeUpdates(input);
    EXPECT_EQ((std::vector<Row>{Row(input[0].type, input[0].name, input[0].port),
                                Row(input[2].type, input[2].name, input[2].port)}),
              decodedRows(updates));
}

TEST_F(ResolverUpdatesTest, RowFitsTellsNamesAroundTheLimitApart)
{
    EXPECT_TRUE(resolver::rowFits("short"));
    EXPECT_FALSE(resolver::rowFits(std::string(resolver::MAX_UPDATE_BYTES, 'x')));
    const std::size_t oneRow = resolver::encodeUpdates({UpdateRow{0, "abc", 1}}).at(0).size();
    EXPECT_TRUE(resolver::rowFits("abc", oneRow));
    EXPECT_FALSE(resolver::rowFits("abcd", oneRow));
}

TEST_F(ResolverUpdatesTest, LongestNameIsTheLastOneThatFitsAnUpdateOfItsOwn)
{
    const std::size_t longest = resolver::longestName();
    EXPECT_EQ(59972u, longest);
    EXPECT_TRUE(resolver::rowFits(std::string(longest, 'n')));
    EXPECT_FALSE(resolver::rowFits(std::string(longest + 1, 'n')));
    EXPECT_EQ(1u, resolver::encodeUpdates({UpdateRow{0, std::string(longest, 'n'), 40000}}).size());
}

}  // namespace
