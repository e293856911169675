#include "engine/commandline.h"

#include "host/paths.h"

namespace vistrel::engine {

namespace {

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::string dump_flows_argument(const EngineOptions& options) {
    return " --dump-flows " + quoted("es;" + options.http_index + ";" + options.flows_index + ";" +
                                     bulk_url(options) + ";");
}

}  // namespace

std::string bulk_url(const EngineOptions& options) {
    return std::string("http") + "://" + options.es_host + ":" + options.es_port + "/_bulk";
}

std::string http_index_argument(const EngineOptions& options) {
    return quoted("es;" + options.http_index + ";" + bulk_url(options) + ";");
}

std::string engine_program() {
    return host::watchkeep_folder() + "/watchkeep";
}

std::string live_command_line(const std::vector<EngineDevice>& devices,
                              const std::vector<std::string>& interface_names,
                              const EngineOptions* options) {
    if ((devices.empty() && interface_names.empty()) || options == nullptr) return "";
    std::string command = quoted(engine_program()) + " /c";
    bool index_devices = true;
    for (const auto& device : devices) {
        command += " -P " + quoted(device.name + ";" + device.capture_folder + ";" +
                                   std::to_string(device.first_number) + ";" +
                                   std::to_string(device.second_number) + ";" +
                                   (device.index_flag ? "1" : "0"));
        if (!device.index_flag || device.dump_mode == 1) index_devices = false;
    }
    for (const auto& name : interface_names) command += " --interface " + quoted(name);
    command += dump_flows_argument(*options);
    if (index_devices) command += " --http-tidewell-index " + http_index_argument(*options);
    command += std::string(" --dns-mode ") + (options->dns_mode_flag ? "1" : "3");
    if (options->arp_flag) command += " --arp-es";
    if (options->pkt_stats_flag) command += " --pkt-stats-es";
    return command;
}

std::string analysis_command_line(const std::string& file_path, const EngineOptions* options) {
    if (options == nullptr || file_path.empty()) return "";
    std::string command = host::watchkeep_folder() + "/" + "watchkeep /c";
    command += " --interface " + quoted(file_path);
    command += dump_flows_argument(*options);
    command += " --http-tidewell-index " + http_index_argument(*options);
    command += " --shutdown-when-done --dns-mode 1 --arp-es --pkt-stats-es --daemon";
    return command;
}

std::vector<std::pair<std::string, std::string>> engine_environment(
    const EngineOptions& options, const std::string& capture_path,
    const std::string& server_certificate) {
    const std::string address = options.server_host + ":" + options.server_port;
    if (server_certificate.empty()) {
        return {{"VISTREL_SERVER_URL", "http://" + address},
                {"VISTREL_CAPTURE_PATH", capture_path}};
    }
    // A server that speaks HTTPS only: the engine reports there and trusts its certificate.
    return {{"VISTREL_SERVER_URL", "https://" + address},
            {"VISTREL_CAPTURE_PATH", capture_path},
            {"VISTREL_SERVER_CA", server_certificate}};
}

std::vector<std::string> split_command_line(const std::string& command_line) {
    std::vector<std::string> arguments;
    std::string current;
    bool in_argument = false;
    bool in_quotes = false;
    size_t i = 0;
    while (i < command_line.size()) {
        char c = command_line[i];
        if (!in_quotes && (c == ' ' || c == '\t')) {
            if (in_argument) arguments.push_back(current);
            current.clear();
            in_argument = false;
            ++i;
            continue;
        }
        in_argument = true;
        if (c == '\\') {
            size_t backslashes = 0;
            while (i < command_line.size() && command_line[i] == '\\') {
                ++backslashes;
                ++i;
            }
            if (i < command_line.size() && command_line[i] == '"') {
                current.append(backslashes / 2, '\\');
                if (backslashes % 2 == 1) {
                    current += '"';
                    ++i;
                }
            } else {
                current.append(backslashes, '\\');
            }
            continue;
        }
        if (c == '"') {
            if (in_quotes && i + 1 < command_line.size() && command_line[i + 1] == '"') {
                current += '"';
                i += 2;
                continue;
            }
            in_quotes = !in_quotes;
            ++i;
            continue;
        }
        current += c;
        ++i;
    }
    if (in_argument) arguments.push_back(current);
    return arguments;
}

}  // namespace vistrel::engine
