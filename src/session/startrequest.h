#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "devices/statsthreadinfo.h"
#include "engine/engineoptions.h"
#include "host/interfaces.h"

namespace vistrel::session {

// What a start-capture (or analysis) request asks for.
struct StartRequest {
    std::vector<devices::StatsThreadInfo> devices;
    std::vector<host::NetworkInterface> interfaces;
    std::optional<engine::EngineOptions> options;
};

// Reads a start-capture document into `request`:
//   {"tidewells":[{"model","friendly_name","mac","file_name","capture_time","max_nr_files",
//     "loop_capture","keep_files"[,"index_traffic","mode"]}],
//    "analyzer":{"dns","arp_stats","pkt_stats","es_host","es_port","es_index","es_type",
//                "http_host","http_port"},
//    "interfaces":[{"name","id","mac"}]}
// JSON syntax errors (nlohmann::json::parse_error) and device errors (missing mandatory key,
// wrong type, bad MAC) are thrown; analyser and interface errors are logged and end that
// member's reading. False when the text is no JSON object, or when `require_devices` is set
// and neither devices nor interfaces were named.
bool read_start_request(const std::string& json_text, bool require_devices, StartRequest& request);

// One element of "tidewells" (also used by the device commands for their "mac").
devices::StatsThreadInfo read_device(const nlohmann::json& object);

}  // namespace vistrel::session
