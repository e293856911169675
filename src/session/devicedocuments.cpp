#include "session/devicedocuments.h"

#include <algorithm>
#include <cstring>

namespace vistrel::session {

namespace {

const char* const kPortNames[TIDEWELLAPI_MAX_PORTS] = {"A", "B"};

// Printable text of a fixed SFF-8472 field (space padded ASCII).
std::string sfp_text(const uint8_t* bytes, size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        char c = static_cast<char>(bytes[i]);
        text += (c >= 0x20 && c < 0x7f) ? c : ' ';
    }
    text.erase(std::find_if(text.rbegin(), text.rend(), [](char c) { return c != ' '; }).base(),
               text.end());
    return text;
}

nlohmann::ordered_json sfp_document(const TidewellAPIPortLinkStatus& port) {
    nlohmann::ordered_json sfp;
    sfp["present"] = port.SfpPresent != 0;
    if (port.SfpPresent == 0) return sfp;
    // Serial ID fields of page A0h.
    sfp["identifier"] = port.SfpA0[0];
    sfp["vendor_name"] = sfp_text(&port.SfpA0[20], 16);
    sfp["vendor_part_number"] = sfp_text(&port.SfpA0[40], 16);
    sfp["vendor_revision"] = sfp_text(&port.SfpA0[56], 4);
    sfp["wavelength_nm"] = (port.SfpA0[60] << 8) | port.SfpA0[61];
    sfp["vendor_serial_number"] = sfp_text(&port.SfpA0[68], 16);
    sfp["date_code"] = sfp_text(&port.SfpA0[84], 8);
    // Diagnostics of page A2h: temperature in 1/256 degrees, supply voltage in 100 uV.
    auto temperature = static_cast<int16_t>((port.SfpA2[96] << 8) | port.SfpA2[97]);
    sfp["temperature_c"] = temperature / 256.0;
    sfp["supply_voltage_v"] = ((port.SfpA2[98] << 8) | port.SfpA2[99]) / 10000.0;
    return sfp;
}

uint32_t port_count(const devices::StatsThreadInfo& device) {
    uint32_t count = device.port_speeds.PortCount;
    if (count == 0 || count > TIDEWELLAPI_MAX_PORTS) count = TIDEWELLAPI_MAX_PORTS;
    return count;
}

}  // namespace

std::string document_text(const nlohmann::ordered_json& document) {
    return document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string speed_text(TidewellAPIPortSpeed speed) {
    switch (speed) {
        case TidewellAPIPortSpeed_Auto:
            return "auto";
        case TidewellAPIPortSpeed_10M:
            return "10M";
        case TidewellAPIPortSpeed_100M:
            return "100M";
        case TidewellAPIPortSpeed_1G:
            return "1G";
        case TidewellAPIPortSpeed_10G:
            return "10G";
        case TidewellAPIPortSpeed_Disabled:
            return "disabled";
        default:
            return "unknown";
    }
}

nlohmann::ordered_json features_document(const TidewellAPIFeatures& f) {
    nlohmann::ordered_json document;
    document["disable_port_a"] = f.DisablePortA;
    document["disable_port_b"] = f.DisablePortB;
    document["enable_timestamps"] = f.EnableTimestamps;
    document["force_pps_generation"] = f.ForcePPSGeneration;
    document["hw_firmware_id"] = f.HWFirmwareId;
    document["inline_mode"] = f.InlineMode;
    document["keep_crc32_field"] = f.KeepCRC32Field;
    document["loopback"] = f.Loopback;
    document["pps_compensation"] = f.PPSCompensation;
    document["pps_output"] = f.PPSOutput;
    document["port_a_timestamp_moment"] = f.PortATimestampMoment;
    document["port_b_timestamp_moment"] = f.PortBTimestampMoment;
    document["slicing"] = f.Slicing;
    document["slicing_length"] = f.SlicingLength;
    document["statistics_only"] = f.StatisticsOnly;
    document["sync_timestamps"] = f.SyncTimestamps;
    document["time_init_source"] = f.TimeInitSource;
    document["transmit_crc_errors"] = f.TransmitCrcErrors;
    document["wait_for_sync"] = f.WaitForSync;
    return document;
}

nlohmann::ordered_json port_speeds_document(const TidewellAPIPortsSpeed& speeds) {
    nlohmann::ordered_json document;
    document["port_count"] = speeds.PortCount;
    document["port_a"] = speeds.Speed[0];
    document["port_b"] = speeds.Speed[1];
    document["auto_negotiation"] = speeds.AutoNegotiation;
    nlohmann::ordered_json supported = nlohmann::ordered_json::array();
    for (uint32_t port = 0; port < TIDEWELLAPI_MAX_PORTS; ++port) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (int speed = TidewellAPIPortSpeed_Auto; speed <= TidewellAPIPortSpeed_Disabled;
             ++speed) {
            if ((speeds.SupportedSpeeds[port] & (1u << speed)) != 0) {
                list.push_back(speed_text(static_cast<TidewellAPIPortSpeed>(speed)));
            }
        }
        supported.push_back(list);
    }
    document["supported"] = supported;
    return document;
}

nlohmann::ordered_json device_summary(const devices::StatsThreadInfo& device,
                                      const std::string& friendly_name) {
    nlohmann::ordered_json document;
    document["model"] = devices::model_name(device.type);
    document["model_id"] = static_cast<int32_t>(device.type);
    document["mac"] = device.mac_text();
    document["friendly_name"] = friendly_name;
    document["capturing"] = device.capturing();
    nlohmann::ordered_json interfaces = nlohmann::ordered_json::array();
    for (uint32_t port = 0; port < port_count(device); ++port) {
        nlohmann::ordered_json interface;
        interface["name"] = kPortNames[port];
        interface["speed"] = speed_text(device.port_speeds.Speed[port]);
        interfaces.push_back(interface);
    }
    document["interfaces"] = interfaces;
    return document;
}

nlohmann::ordered_json device_details(const devices::StatsThreadInfo& device,
                                      const devices::InterfaceStatus& status,
                                      const std::string& friendly_name) {
    nlohmann::ordered_json document = device_summary(device, friendly_name);
    nlohmann::ordered_json& interfaces = document["interfaces"];
    for (uint32_t port = 0; port < interfaces.size(); ++port) {
        nlohmann::ordered_json& interface = interfaces[port];
        if (port < status.link.PortCount) {
            const TidewellAPIPortLinkStatus& link = status.link.Ports[port];
            interface["link_up"] = link.LinkUp == TidewellAPIState_On;
            interface["link_speed"] = speed_text(link.Speed);
            interface["full_duplex"] = link.FullDuplex == TidewellAPIState_On;
            interface["sfp"] = sfp_document(link);
        }
        if (port < status.statistics.PortCount) {
            const TidewellAPIPortStatistics& counters = status.statistics.Ports[port];
            interface["statistics"] = {
                {"packets", counters.Packets},      {"bytes", counters.Bytes},
                {"crc_errors", counters.CrcErrors}, {"dropped", counters.Dropped},
                {"broadcast", counters.Broadcast},  {"multicast", counters.Multicast}};
        }
    }
    document["capabilities"] = device.capabilities;
    const TidewellAPIVersions& v = device.versions;
    document["versions"] = {
        {"api", v.ApiVersion},
        {"driver", v.DriverVersion},
        {"firmware", v.FirmwareVersion},
        {"hardware", v.HardwareVersion},
        {"fpga", v.FpgaVersion},
        {"bootloader", v.BootloaderVersion},
        {"serial_number",
         sfp_text(reinterpret_cast<const uint8_t*>(v.SerialNumber), strnlen(v.SerialNumber, 32))}};
    if (device.has_features()) {
        document["features"] = features_document(device.features);
        document["port_speeds"] = port_speeds_document(device.port_speeds);
        nlohmann::ordered_json images = nlohmann::ordered_json::array();
        uint32_t count = std::min<uint32_t>(status.firmwares.Count, 4);
        for (uint32_t i = 0; i < count; ++i) {
            const TidewellAPIHwFirmwareDesc& image = status.firmwares.Images[i];
            images.push_back(
                {{"id", image.Id},
                 {"version", image.Version},
                 {"description", sfp_text(reinterpret_cast<const uint8_t*>(image.Description),
                                          strnlen(image.Description, sizeof image.Description))},
                 {"active", image.Id == status.firmwares.ActiveId}});
        }
        document["hw_firmwares"] = images;
        document["extra"] = {{"temperature_c", status.extra.Temperature},
                             {"uptime_seconds", status.extra.UptimeSeconds}};
    }
    if ((device.capabilities & TIDEWELLAPI_CAP_TIMING) != 0) {
        const TidewellAPITimingStatus& t = status.timing;
        document["timing"] = {{"source", t.Source},
                              {"synchronized", t.Synchronized == TidewellAPIState_On},
                              {"pps_present", t.PPSPresent == TidewellAPIState_On},
                              {"gps_locked", t.GPSLocked == TidewellAPIState_On},
                              {"seconds", t.Seconds},
                              {"nanoseconds", t.Nanoseconds},
                              {"offset_nanoseconds", t.OffsetNanoseconds}};
    }
    const TidewellAPIDiskDumpStatus& dd = device.dd_status;
    document["disk_dump"] = {
        {"capture_running", dd.CaptureRunning != 0}, {"files_written", dd.FilesWritten},
        {"packets_written", dd.PacketsWritten},      {"bytes_written", dd.BytesWritten},
        {"packets_dropped", dd.PacketsDropped},      {"start_time", dd.StartTime}};
    return document;
}

}  // namespace vistrel::session
