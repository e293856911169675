#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "devices/deviceoperations.h"
#include "devices/statsthreadinfo.h"

// The device information documents. Keys are lower snake case; values are JSON numbers and
// booleans (unlike the command replies, these are written with the JSON library).
namespace vistrel::session {

// One device of "/getDevices":
// {"model","model_id","mac","friendly_name","capturing","interfaces":[{"name","speed",..}]}
nlohmann::ordered_json device_summary(const devices::StatsThreadInfo& device,
                                      const std::string& friendly_name);

// One device of "/getTidewells": the summary plus "capabilities", "versions", "features",
// "port_speeds", "hw_firmwares", "extra", "statistics", "timing" and "disk_dump"; the
// interfaces carry link status and SFP module data.
nlohmann::ordered_json device_details(const devices::StatsThreadInfo& device,
                                      const devices::InterfaceStatus& status,
                                      const std::string& friendly_name);

// The features record under the keys that "/saveTidewell" reads back.
nlohmann::ordered_json features_document(const TidewellAPIFeatures& features);
// {"port_count","port_a","port_b","auto_negotiation","supported":[..]}
nlohmann::ordered_json port_speeds_document(const TidewellAPIPortsSpeed& speeds);

// The text of a document. Bytes that are no UTF-8 (an uploaded file's name, a catalogue entry)
// become U+FFFD rather than failing the whole reply.
std::string document_text(const nlohmann::ordered_json& document);

// "10M", "100M", "1G", "10G", "auto", "disabled" or "unknown".
std::string speed_text(TidewellAPIPortSpeed speed);

}  // namespace vistrel::session
