// The status document and vektctl's reading of it, as pure functions over a snapshot.
#include <gtest/gtest.h>

#include <algorithm>

#include "status/status_document.h"
#include "vektctl/json_value.h"
#include "vektctl/status_table.h"
#include "vektctl/vektctl_args.h"

namespace vekt::test {
namespace {

StatusSnapshot hostileSnapshot() {
    StatusSnapshot status;
    status.version = "3.0.4.5";
    status.uptimeMs = 3723000;
    status.settings = {{"mini_est_interval", false, 100, ""}, {"rtt_server", true, 0, "a\"b\\c"}};
    status.interfaceMode = std::string("1\x01\xff\x1b[2J", 7);
    status.slaUids = {"10123", "\n"};
    InterfaceStatus wifi;
    wifi.name = "wlan0";
    wifi.aggregated = wifi.statsMapped = true;
    wifi.lastRate = 1200;
    wifi.ratio = 0.75f;
    wifi.installedProbability = 0.75f;
    InterfaceStatus cellular;
    cellular.name = "rmnet_data0";
    cellular.metered = true;
    status.interfaces = {wifi, cellular};
    status.probes = {{"rmnet_data0", 35, 4, 1, 0, true, true}};
    status.selectedInterface = "rmnet_data0";
    status.counters.commandsRun = uint64_t{1} << 60;  // beyond what a double holds exactly
    return status;
}

TEST(StatusDocumentTest, AnySnapshotGivesJsonThatReadsBackAsItWas) {
    vektctl::JsonValue document;
    std::string error;
    ASSERT_TRUE(vektctl::parseJson(statusDocument(hostileSnapshot()), document, error)) << error;
    EXPECT_EQ(document.find("settings")->find("rtt_server")->asString(), "a\"b\\c");
    EXPECT_EQ(document.find("flags")->find("interface_mode")->asString(), "1\x01\xEF\xBF\xBD\x1b[2J");
    EXPECT_EQ(document.find("lists")->find("sla_uids")->items.at(1).asString(), "\n");
    const auto& links = document.find("interfaces")->items;
    ASSERT_EQ(links.size(), 2u);
    EXPECT_DOUBLE_EQ(links[0].find("installed_probability")->asNumber(), 0.75);
    EXPECT_TRUE(links[1].find("installed_probability")->isNull());  // no rule written yet
    EXPECT_EQ(document.find("counters")->find("commands_run")->asInteger(), int64_t{1} << 60);
    EXPECT_EQ(document.find("selection")->find("selected")->asString(), "rmnet_data0");
}

TEST(StatusTableTest, OneRowPerInterfaceDashesForWhatIsMissingAndNoControlBytes) {
    vektctl::JsonValue document;
    std::string error;
    ASSERT_TRUE(vektctl::parseJson(statusDocument(hostileSnapshot()), document, error));
    const std::string table = vektctl::formatStatusTable(document);
    EXPECT_NE(table.find("vekt 3.0.4.5, up 1h02m"), std::string::npos) << table;
    EXPECT_NE(table.find("sla 10123,?"), std::string::npos) << table;
    EXPECT_EQ(table.find('\x1b'), std::string::npos);
    // The selected link is starred; a link without aggregation or probe shows dashes.
    EXPECT_NE(table.find("\n*rmnet_data0 "), std::string::npos) << table;
    EXPECT_NE(table.find("\n wlan0 "), std::string::npos) << table;
    // An older or newer daemon's document (fields missing) still prints.
    ASSERT_TRUE(vektctl::parseJson("{\"interfaces\":[{\"name\":\"wlan1\"}]}", document, error));
    const std::string sparse = vektctl::formatStatusTable(document);
    const std::string row = sparse.substr(sparse.find("\n wlan1 "));
    EXPECT_EQ(std::count(row.begin(), row.end(), '-'), 13) << sparse;
}

TEST(VektctlStatusArgsTest, StatusTakesJsonAndAWatchPeriod) {
    vektctl::Request request;
    std::string error;
    ASSERT_TRUE(vektctl::parseCommandLine({"--root", "/r", "status", "--watch", "2", "--json"},
                                          request, error));
    EXPECT_TRUE(request.status && request.json);
    EXPECT_EQ(request.watchSeconds, 2);
    EXPECT_EQ(request.root, "/r");
    for (const auto& bad : {std::vector<std::string>{"status", "--watch"},
                            {"status", "--watch", "0"}, {"status", "--watch", "x"},
                            {"status", "extra"}})
        EXPECT_FALSE(vektctl::parseCommandLine(bad, request, error)) << bad.back();
}

}  // namespace
}  // namespace vekt::test
