#include <gtest/gtest.h>

#include "base/text.h"
#include "support/parameters_fixture.h"

namespace vekt::test {
namespace {

using Strings = std::vector<std::string>;

TEST(SplitListTest, KeepsInnerEmptyPiecesButNoTrailingOne) {
    EXPECT_EQ(splitList(""), Strings{});
    EXPECT_EQ(splitList("a"), Strings{"a"});
    EXPECT_EQ(splitList("a,"), Strings{"a"});
    EXPECT_EQ(splitList(",a"), (Strings{"", "a"}));
    EXPECT_EQ(splitList("a,,b"), (Strings{"a", "", "b"}));
    EXPECT_EQ(splitList(","), Strings{""});
    EXPECT_EQ(splitList(" a , b"), (Strings{" a ", " b"}));
}

class UidListsTest : public ParametersTest {};

TEST_F(UidListsTest, WhitelistsRefuseEntriesOfSixOrMoreCharacters) {
    Parameters* p = params();
    p->setuidwhitelist("10123,1010123,10234");
    p->populateSlaUidWhitelist();
    EXPECT_EQ(p->m_slaUidList.get(), (Strings{"10123", "10234"}));
    EXPECT_TRUE(log_.contains("populateSlaUidWhitelist token length error is 7"));
    EXPECT_TRUE(log_.contains("SLA UID whitelist = 10234"));

    p->setDWUidWhitelist("10123,,10234");
    p->populateDWUidWhitelist();
    EXPECT_EQ(p->m_dwUidList.get(), (Strings{"10123", "", "10234"}));
    EXPECT_TRUE(log_.contains("SLA Double Wlan UID whitelist = "));

    p->setDDUidWhitelist("123456");
    p->populateDDUidWhitelist();
    EXPECT_TRUE(p->m_ddUidList.get().empty());
    EXPECT_TRUE(log_.contains("populateDDUidWhitelist token length error is 6"));
}

TEST_F(UidListsTest, EmptyTextEmptiesTheList) {
    Parameters* p = params();
    p->setuidwhitelist("10123");
    p->populateSlaUidWhitelist();
    p->setuidwhitelist("");
    p->populateSlaUidWhitelist();
    EXPECT_TRUE(p->m_slaUidList.get().empty());
}

TEST_F(UidListsTest, GamingListHasNoLengthLimitAndNullKeepsTheText) {
    Parameters* p = params();
    p->setGamingUids("1010123,10234");
    p->populateGamingUids();
    EXPECT_EQ(p->m_gamingUidList.get(), (Strings{"1010123", "10234"}));
    EXPECT_TRUE(log_.contains("SLS GAMING Demo UID = 1010123"));
    p->setGamingUids(nullptr);
    EXPECT_EQ(p->getGamingUids(), "1010123,10234");
    p->populateGamingUids();
    EXPECT_EQ(p->m_gamingUidList.get(), (Strings{"1010123", "10234"}));
}

}  // namespace
}  // namespace vekt::test
