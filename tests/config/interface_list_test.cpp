#include <gtest/gtest.h>

#include "support/parameters_fixture.h"

namespace vekt::test {
namespace {

class InterfaceListTest : public ParametersTest {
protected:
    InterfaceInfo_t* record(const std::string& name) {
        auto entry = params()->m_interfaceInfoMap.find(name);
        return entry == params()->m_interfaceInfoMap.end() ? nullptr : entry->second;
    }
};

TEST_F(InterfaceListTest, PrimaryWifiGetsTheDefaultFlagAndFirstMark) {
    params()->UpdateInterface("wlan0", true);
    EXPECT_TRUE(log_.contains("SLA m_ifaceParams[i] = wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff"));
    EXPECT_TRUE(log_.contains("m_interfaceInfoMap add wlan0 success!"));
    InterfaceInfo_t* wlan0 = record("wlan0");
    ASSERT_NE(wlan0, nullptr);
    EXPECT_TRUE(wlan0->isDefault);
    EXPECT_FALSE(wlan0->metered);
    EXPECT_STREQ(wlan0->routeTable, "wlan0");
}

TEST_F(InterfaceListTest, SecondCellularLinkBecomesTheSlave) {
    Parameters* p = params();
    p->UpdateInterface("wlan0", true);
    p->UpdateInterface("rmnet_data0", true);
    p->UpdateInterface("rmnet_data1", true);
    p->UpdateInterface("wlan1", true);
    p->UpdateInterface("dummy0", true);  // a fifth name shares the first mark
    EXPECT_TRUE(log_.contains(
        "SLA m_ifaceParams[i] = rmnet_data0,1,rmnet_data0,0x400000,0,0,0,0,ffffffffffff"));
    EXPECT_TRUE(log_.contains(
        "SLA m_ifaceParams[i] = rmnet_data1,1,rmnet_data1,0x600000,0,0,0,1,ffffffffffff"));
    EXPECT_TRUE(log_.contains("SLA m_ifaceParams[i] = wlan1,0,wlan1,0x800000,0,0,0,1,ffffffffffff"));
    EXPECT_TRUE(log_.contains("SLA m_ifaceParams[i] = dummy0,0,dummy0,0x200000,0,0,0,0,ffffffffffff"));
    ASSERT_NE(record("rmnet_data1"), nullptr);
    EXPECT_TRUE(record("rmnet_data1")->slave);
    EXPECT_TRUE(record("rmnet_data1")->metered);

    p->UpdateInterface("rmnet_data0", false);
    EXPECT_TRUE(log_.contains("m_interfaceInfoMap del rmnet_data0 success!"));
    EXPECT_EQ(record("rmnet_data0"), nullptr);
    EXPECT_EQ(p->getValidInterfaceMark("ccmni0"), "0x400000");  // its slot is free again
}

TEST_F(InterfaceListTest, ModeDecidesTheMeteredTokenOfLaterCellularLinks) {
    Parameters* p = params();
    p->UpdateInterface("ccmni0", true);
    ASSERT_NE(record("ccmni0"), nullptr);
    EXPECT_TRUE(record("ccmni0")->metered);
    p->UpdateInterfaceMode("0");
    EXPECT_FALSE(record("ccmni0")->metered);
    p->UpdateInterface("wwan0", true);
    EXPECT_TRUE(log_.contains("SLA m_ifaceParams[i] = wwan0,0,wwan0,0x400000,0,0,0,0,ffffffffffff"));

    // The same mode again touches nothing: a record changed behind its back stays changed.
    record("ccmni0")->metered = true;
    p->UpdateInterfaceMode("0");
    EXPECT_TRUE(record("ccmni0")->metered);
}

TEST_F(InterfaceListTest, MoreThanFourNamesAreRefusedNotOverflowed) {
    Parameters* p = params();
    p->populatIfaceslist("a0,a1,a2,a3,a4,a5");
    EXPECT_EQ(p->m_numInterfaces, 4);
    EXPECT_EQ(p->m_ifaceList.get().size(), 4u);
    EXPECT_TRUE(log_.contains("populatIfaceslist too many interfaces, a4 refused"));
    EXPECT_TRUE(log_.contains("populatIfaceslist too many interfaces, a5 refused"));
}

TEST_F(InterfaceListTest, BssidUpdates) {
    Parameters* p = params();
    p->UpdateInterface("wlan0", true);
    p->UpdateInterface("wlan1", true);
    p->UpdateInterfaceBssid("aa:bb:cc:dd:ee:ff,");
    EXPECT_TRUE(log_.contains("UpdateInterfaceBssid bssid is aabbccddeeff,"));
    EXPECT_STREQ(record("wlan0")->bssid, "aabbccddeeff");
    EXPECT_STREQ(record("wlan1")->bssid, "ffffffffffff");

    p->UpdateInterfaceBssid(",11:22:33:44:55:66");
    EXPECT_STREQ(record("wlan0")->bssid, "aabbccddeeff");
    EXPECT_STREQ(record("wlan1")->bssid, "112233445566");

    // One piece too long abandons the whole update.
    p->UpdateInterfaceBssid("000000000000,1122334455667");
    EXPECT_TRUE(log_.contains("UpdateInterfaceBssid token length error is 13"));
    EXPECT_STREQ(record("wlan0")->bssid, "aabbccddeeff");
    EXPECT_STREQ(record("wlan1")->bssid, "112233445566");
}

TEST_F(InterfaceListTest, GatewayPiecesOfSeventeenOrMoreAreSkipped) {
    Parameters* p = params();
    p->populateWifiGateway("192.168.1.1,2001:db8::1:2:34,2001:db8::1:2:345,10.0.0.1");
    EXPECT_EQ(p->m_wifiGatewayList.get(),
              (std::vector<std::string>{"192.168.1.1", "2001:db8::1:2:34", "10.0.0.1"}));
    EXPECT_TRUE(log_.contains("populateWifiGateway token length error is 17"));
    EXPECT_TRUE(log_.contains("populateWifiGateway = 10.0.0.1"));
    p->populateWifiGateway("");
    EXPECT_TRUE(p->m_wifiGatewayList.get().empty());
}

}  // namespace
}  // namespace vekt::test
