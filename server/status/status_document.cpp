#include "status/status_document.h"

#include "base/json_writer.h"

namespace vekt {
namespace {

void writeList(JsonWriter& json, const char* name, const std::vector<std::string>& items) {
    json.key(name).beginArray();
    for (const std::string& item : items) json.value(item);
    json.endArray();
}

void writeSettings(JsonWriter& json, const StatusSnapshot& status) {
    json.key("settings").beginObject();
    for (const Parameters::KeyedSetting& setting : status.settings) {
        if (setting.isText) {
            json.field(setting.key, setting.text);
        } else {
            json.field(setting.key, setting.number);
        }
    }
    json.endObject();
    json.key("flags").beginObject();
    json.field("gaming_state", status.gamingState);
    json.field("voip", status.voip);
    json.field("service_high_rtt", status.serviceHighRtt);
    json.field("ai_mode_check_rtt", status.aiModeCheckRtt);
    json.field("dual_wifi_monitor", status.dualWifiMonitor);
    json.field("dual_wifi_select", status.dualWifiSelect);
    json.field("interface_mode", status.interfaceMode);
    json.endObject();
}

void writeLists(JsonWriter& json, const StatusSnapshot& status) {
    json.key("lists").beginObject();
    writeList(json, "sla_uids", status.slaUids);
    writeList(json, "dual_wifi_uids", status.dualWifiUids);
    writeList(json, "dual_data_uids", status.dualDataUids);
    writeList(json, "gaming_uids", status.gamingUids);
    writeList(json, "wifi_gateways", status.wifiGateways);
    json.endObject();
}

void writeInterface(JsonWriter& json, const InterfaceStatus& link) {
    json.beginObject();
    json.field("name", link.name);
    json.field("fwmark", link.fwmark);
    json.field("route_table", link.routeTable);
    json.field("metered", link.metered);
    json.field("default", link.isDefault);
    json.field("slave", link.slave);
    json.field("bssid", link.bssid);
    json.field("aggregated", link.aggregated);
    json.field("stats_mapped", link.statsMapped);
    json.field("last_rate", link.lastRate);
    json.field("history_max", link.historyMax);
    json.field("ratio", static_cast<double>(link.ratio));
    json.key("installed_probability");
    if (link.installedProbability < 0) {
        json.null();
    } else {
        json.value(static_cast<double>(link.installedProbability));
    }
    json.endObject();
}

void writeProbe(JsonWriter& json, const ProbeStatus& probe) {
    json.beginObject();
    json.field("name", probe.name);
    json.field("speed_ms", probe.speed);
    json.field("level", probe.level);
    json.field("miss_count", probe.missCount);
    json.field("rtt_offset_ms", probe.rttOffsetMs);
    json.field("thread_running", probe.threadRunning);
    json.field("measuring", probe.measuring);
    json.endObject();
}

void writeSelection(JsonWriter& json, const StatusSnapshot& status) {
    json.key("selection").beginObject();
    json.field("active", status.selectionActive);
    json.key("selected");
    if (status.selectedInterface.empty()) {
        json.null();
    } else {
        json.value(status.selectedInterface);
    }
    json.field("hysteresis_window_start_ms", status.hysteresisWindowStartMs);
    json.field("switch_count", status.switchCount);
    json.field("rtt_server", status.rttServer);
    json.field("rtt_server_port", status.rttServerPort);
    json.key("probes").beginArray();
    for (const ProbeStatus& probe : status.probes) writeProbe(json, probe);
    json.endArray();
    json.endObject();
}

void writeCounters(JsonWriter& json, const CounterValues& counters) {
    json.key("counters").beginObject();
    json.field("commands_run", counters.commandsRun);
    json.field("commands_not_started", counters.commandsNotStarted);
    json.field("rule_rewrites", counters.ruleRewrites);
    json.field("selection_switches", counters.selectionSwitches);
    json.field("sockets_destroyed", counters.socketsDestroyed);
    json.field("main_loop_passes", counters.mainLoopPasses);
    json.endObject();
}

}  // namespace

std::string statusDocument(const StatusSnapshot& status) {
    JsonWriter json;
    json.beginObject();
    json.field("version", status.version);
    json.field("uptime_ms", status.uptimeMs);
    writeSettings(json, status);
    writeLists(json, status);
    json.key("interfaces").beginArray();
    for (const InterfaceStatus& link : status.interfaces) writeInterface(json, link);
    json.endArray();
    writeSelection(json, status);
    writeCounters(json, status.counters);
    json.endObject();
    // Every call above is in place, so this holds; should it ever not, a client gets an
    // empty object rather than half a document.
    return json.complete() ? json.text() + "\n" : "{}\n";
}

}  // namespace vekt
