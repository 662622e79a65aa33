#include <gtest/gtest.h>
#include <stdlib.h>

#include "support/parameters_fixture.h"

namespace vekt::test {
namespace {

class InterfaceRegistryTest : public ParametersTest {};

TEST_F(InterfaceRegistryTest, MarksComeFromTheFourSlotPoolInOrder) {
    Parameters* p = params();
    EXPECT_EQ(p->getValidInterfaceMark("wlan0"), "0x200000");
    EXPECT_EQ(p->getValidInterfaceMark("rmnet_data0"), "0x400000");
    EXPECT_EQ(p->getValidInterfaceMark("wlan1"), "0x600000");
    EXPECT_EQ(p->getValidInterfaceMark("wlan0"), "0x200000");  // asking again keeps the mark
    p->releaseValidInterfaceMark("rmnet_data0");
    EXPECT_EQ(p->getValidInterfaceMark("rmnet_data1"), "0x400000");  // first free slot
    EXPECT_EQ(p->getValidInterfaceMark("ccmni0"), "0x800000");
    // A fifth interface shares the first mark and takes no slot.
    EXPECT_EQ(p->getValidInterfaceMark("wwan0"), "0x200000");
    p->releaseValidInterfaceMark("wlan1");
    EXPECT_EQ(p->getValidInterfaceMark("wwan0"), "0x600000");
}

TEST_F(InterfaceRegistryTest, SlaveStatusCountsRmnetDataOwnersOnly) {
    Parameters* p = params();
    p->getValidInterfaceMark("ccmni0");
    p->getValidInterfaceMark("ccmni1");
    EXPECT_EQ(p->getMeteredInterfaceSlaveStatus(), "0");
    p->getValidInterfaceMark("rmnet_data0");
    EXPECT_EQ(p->getMeteredInterfaceSlaveStatus(), "0");
    p->getValidInterfaceMark("rmnet_data1");
    EXPECT_EQ(p->getMeteredInterfaceSlaveStatus(), "1");
    EXPECT_TRUE(log_.contains("getMeteredInterfaceSlaveStatus slave status 1"));
}

TEST_F(InterfaceRegistryTest, ParsesAValidParameterString) {
    InterfaceInfo_t* info =
        params()->parseInterfaceParams("rmnet_data0,1,table9,0x400000,0,3,-2,1,aabbccddeeff");
    ASSERT_NE(info, nullptr);
    EXPECT_STREQ(info->name, "rmnet_data0");
    EXPECT_STREQ(info->routeTable, "table9");
    EXPECT_STREQ(info->fwmark, "0x400000");
    EXPECT_TRUE(info->metered);
    EXPECT_FALSE(info->isDefault);
    EXPECT_TRUE(info->slave);
    EXPECT_EQ(info->cost, 3);
    EXPECT_EQ(info->bias, -2);
    EXPECT_STREQ(info->bssid, "aabbccddeeff");
    EXPECT_TRUE(log_.contains("parseInterfaceParams rmnet_data0 1 9 "));
    EXPECT_TRUE(log_.contains("validateInterfaceParams Interface name is       rmnet_data0"));
    EXPECT_TRUE(log_.contains("validateInterfaceParams Interface slave is      1"));
    free(info);
}

TEST_F(InterfaceRegistryTest, RejectsWrongFieldCountsAndMissingTexts) {
    Parameters* p = params();
    EXPECT_EQ(p->parseInterfaceParams("wlan0,0,wlan0,0x200000,1,0,0,0"), nullptr);
    EXPECT_EQ(p->parseInterfaceParams("a,0,a,0x1,1,0,0,0,ff,extra"), nullptr);
    EXPECT_EQ(p->parseInterfaceParams(""), nullptr);
    EXPECT_EQ(log_.count("parseInterfaceParams Check vekt.conf for interface errors"), 3u);

    log_.clear();
    EXPECT_EQ(p->parseInterfaceParams("wlan0,0,,,1,0,0,0,ffffffffffff"), nullptr);
    EXPECT_TRUE(log_.contains("validateInterfaceParams Interface routeTable is NULL"));
    EXPECT_TRUE(log_.contains("validateInterfaceParams Interface fwmark is NULL"));

    log_.clear();
    EXPECT_EQ(p->parseInterfaceParams(",0,t,0x200000,1,0,0,0,ffffffffffff"), nullptr);
    EXPECT_TRUE(log_.contains("validateInterfaceParams Interface name is NULL"));
    EXPECT_FALSE(log_.contains("validateInterfaceParams Interface routeTable is NULL"));
    EXPECT_EQ(p->validateInterfaceParams(nullptr), 0);
    EXPECT_TRUE(log_.contains("validateInterfaceParams Interface Obj is NULL"));
}

TEST_F(InterfaceRegistryTest, OverlongTokensAreCutOrRefusedNotOverflowed) {
    InterfaceInfo_t* info = params()->parseInterfaceParams(
        "wlan0,0," + std::string(15, 't') + ",0x200000,1,0,0,0," + std::string(40, 'b'));
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(std::string(info->routeTable), std::string(15, 't'));
    EXPECT_EQ(std::string(info->bssid), std::string(12, 'b'));
    free(info);
    // Names and tables become tool arguments and paths: what the kernel would refuse is.
    const std::string longName(300, 'n');
    EXPECT_EQ(params()->parseInterfaceParams(longName + ",0,wlan0,0x200000,1,0,0,0,ff"), nullptr);
    EXPECT_TRUE(log_.contains("parseInterfaceParams refused interface name \"" +
                              std::string(64, 'n') + "...\""));
    EXPECT_EQ(params()->parseInterfaceParams("wlan0,0,../t,0x200000,1,0,0,0,ff"), nullptr);
    EXPECT_TRUE(log_.contains("parseInterfaceParams refused route table \"../t\""));
    EXPECT_EQ(params()->parseInterfaceParams("wlan0,0,wlan0,0x2 -j X,1,0,0,0,ff"), nullptr);
    EXPECT_TRUE(log_.contains("parseInterfaceParams refused fwmark \"0x2 -j X\""));
}

TEST_F(InterfaceRegistryTest, AddReplaceAndDelete) {
    Parameters* p = params();
    InterfaceInfo_t* first = p->parseInterfaceParams("wlan0,0,wlan0,0x200000,1,0,0,0,ff");
    ASSERT_EQ(p->addNewInterfacetoMap(first), 1);
    EXPECT_TRUE(log_.contains("addNewInterfacetoMap Added wlan0 to list of interfaces "));
    InterfaceInfo_t* second = p->parseInterfaceParams("wlan0,0,wlan0,0x400000,1,0,0,0,ff");
    ASSERT_EQ(p->addNewInterfacetoMap(second), 1);
    ASSERT_EQ(p->m_interfaceInfoMap.size(), 1u);
    EXPECT_STREQ(p->m_interfaceInfoMap["wlan0"]->fwmark, "0x400000");

    InterfaceInfo_t* invalid = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
    EXPECT_EQ(p->addNewInterfacetoMap(invalid), 0);
    EXPECT_TRUE(log_.contains("addNewInterfacetoMap Add interface failed "));
    free(invalid);

    EXPECT_EQ(p->delOldInterfacetoMap("wlan0"), 1);
    EXPECT_EQ(p->delOldInterfacetoMap("never-added"), 1);
    EXPECT_TRUE(p->m_interfaceInfoMap.empty());
}

}  // namespace
}  // namespace vekt::test
