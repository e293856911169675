#include "arguments.h"

#include <net/if.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <functional>
#include <map>

namespace vistrel::watchkeep {

namespace {

std::vector<std::string> split_fields(const std::string& value) {
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
        size_t end = value.find(';', start);
        fields.push_back(value.substr(start, end - start));
        if (end == std::string::npos) break;
        start = end + 1;
    }
    // The server ends these values with ";": no empty last field.
    if (fields.size() > 1 && fields.back().empty()) fields.pop_back();
    return fields;
}

long read_number(const std::string& text, const std::string& what) {
    long value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        throw ArgumentError(what + " is not a number: '" + text + "'");
    }
    return value;
}

bool is_http_url(const std::string& url) {
    return url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0;
}

DeviceSource read_device(const std::string& value) {
    std::vector<std::string> fields = split_fields(value);
    if (fields.size() != 5) {
        throw ArgumentError("-P wants \"name;folder;capture time;files;index flag\", got '" +
                            value + "'");
    }
    DeviceSource device;
    device.name = fields[0];
    device.folder = fields[1];
    if (device.name.empty() || device.name.find('/') != std::string::npos) {
        throw ArgumentError("-P: bad device name '" + device.name + "'");
    }
    if (device.folder.empty())
        throw ArgumentError("-P: no folder for device '" + device.name + "'");
    device.capture_time = read_number(fields[2], "-P capture time");
    device.max_files = read_number(fields[3], "-P number of files");
    if (fields[4] != "0" && fields[4] != "1") {
        throw ArgumentError("-P: the index flag must be 0 or 1, got '" + fields[4] + "'");
    }
    device.index_traffic = fields[4] == "1";
    return device;
}

void read_dump_flows(const std::string& value, EngineArguments& arguments) {
    std::vector<std::string> fields = split_fields(value);
    if (fields.size() != 4 || fields[0] != "es" || fields[2].empty() || !is_http_url(fields[3])) {
        throw ArgumentError(
            "--dump-flows wants \"es;<http index>;<flows index>;http://host:port/_bulk;\", got '" +
            value + "'");
    }
    arguments.flows_index = fields[2];
    arguments.bulk_url = fields[3];
}

void read_http_index(const std::string& value, EngineArguments& arguments) {
    std::vector<std::string> fields = split_fields(value);
    if (fields.size() != 3 || fields[0] != "es" || fields[1].empty() || !is_http_url(fields[2])) {
        throw ArgumentError(
            "--http-tidewell-index wants \"es;<index>;http://host:port/_bulk;\", got '" + value +
            "'");
    }
    arguments.http_index = fields[1];
}

bool is_regular_file(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

void read_source(const std::string& value, EngineArguments& arguments) {
    if (value.empty()) throw ArgumentError("--interface needs a name or a file");
    const bool is_path = value.find('/') != std::string::npos;
    if (is_path || (if_nametoindex(value.c_str()) == 0 && is_regular_file(value))) {
        struct stat status {};
        if (stat(value.c_str(), &status) != 0) {
            throw ArgumentError("cannot read capture file '" + value +
                                "': " + std::strerror(errno));
        }
        if (!S_ISREG(status.st_mode)) {
            throw ArgumentError("cannot read capture file '" + value + "': not a regular file");
        }
        arguments.files.push_back(value);
    } else {
        arguments.interfaces.push_back(value);
    }
}

}  // namespace

EngineArguments read_arguments(const std::vector<std::string>& input) {
    EngineArguments arguments;
    bool have_dump_flows = false;
    using Reader = std::function<void(const std::string&)>;
    const std::map<std::string, Reader> with_value = {
        {"-P", [&](const std::string& v) { arguments.devices.push_back(read_device(v)); }},
        {"--interface", [&](const std::string& v) { read_source(v, arguments); }},
        {"--dump-flows",
         [&](const std::string& v) {
             read_dump_flows(v, arguments);
             have_dump_flows = true;
         }},
        {"--http-tidewell-index", [&](const std::string& v) { read_http_index(v, arguments); }},
        {"--dns-mode",
         [&](const std::string& v) {
             long mode = read_number(v, "--dns-mode");
             if (mode < 0 || mode > 3) throw ArgumentError("--dns-mode must be 0 to 3, got " + v);
             arguments.dns_mode = static_cast<int>(mode);
         }},
    };
    const std::map<std::string, bool*> flags = {
        {"--arp-es", &arguments.arp_records},
        {"--pkt-stats-es", &arguments.packet_statistics},
        {"--shutdown-when-done", &arguments.shutdown_when_done},
        {"--help", &arguments.help},
    };

    for (size_t i = 0; i < input.size(); ++i) {
        std::string option = input[i];
        // "/c" is the Windows shell's leftover; "--daemon" means nothing here.
        if ((i == 0 && option == "/c") || option == "--daemon") continue;
        if (auto flag = flags.find(option); flag != flags.end()) {
            *flag->second = true;
            continue;
        }
        std::string value;
        bool inline_value = false;
        if (size_t equals = option.find('=');
            option.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = option.substr(equals + 1);
            option.resize(equals);
            inline_value = true;
        }
        auto reader = with_value.find(option);
        if (reader == with_value.end()) throw ArgumentError("unknown argument '" + input[i] + "'");
        if (!inline_value) {
            if (i + 1 >= input.size()) throw ArgumentError(option + " needs a value");
            value = input[++i];
        }
        reader->second(value);
    }
    if (arguments.help) return arguments;
    if (arguments.devices.empty() && arguments.interfaces.empty() && arguments.files.empty()) {
        throw ArgumentError("nothing to capture: give -P or --interface");
    }
    if (!arguments.files.empty() && (!arguments.devices.empty() || !arguments.interfaces.empty())) {
        throw ArgumentError("a capture file cannot be analysed together with live sources");
    }
    if (!have_dump_flows) throw ArgumentError("--dump-flows is required");
    return arguments;
}

std::string usage_text() {
    return R"(usage: watchkeep [/c] SOURCE... --dump-flows "es;HTTP_INDEX;FLOWS_INDEX;BULK_URL;" [options]
sources:
  -P "NAME;FOLDER;SECONDS;FILES;INDEX"  take the capture files a device closes in FOLDER
  --interface NAME                     capture a network interface live (root or CAP_NET_RAW)
  --interface FILE                     analyse a pcap or pcapng file
options:
  --http-tidewell-index "es;INDEX;BULK_URL;"  HTTP request records into INDEX
  --dns-mode N           1: DNS query records
  --arp-es               ARP records
  --pkt-stats-es         periodic packet statistics
  --shutdown-when-done   end once the files are indexed
  --daemon               accepted, changes nothing
environment:
  VISTREL_SERVER_URL     where files are reported (default http://localhost:8081)
  VISTREL_SERVER_CA      the certificate an https server above is trusted by
  VISTREL_CAPTURE_PATH   where interface captures are written (default ~/Documents/Vistrel/captures)
  VISTREL_FILE_SECONDS   seconds per interface capture file (default 60)
A line STOP on standard input, or its end, stops the engine.
)";
}

}  // namespace vistrel::watchkeep
