#include "dashboard/dashboardfilter.h"

#include <yaml-cpp/yaml.h>

#include <array>
#include <string_view>

#include "host/interfaces.h"
#include "host/paths.h"
#include "startup/logger.h"

namespace vistrel::dashboard {

namespace {

enum class RuleKind { kFieldValue, kField, kValue, kPort, kAddress };

struct Section {
    std::string_view name;
    RuleKind kind;
};

// Sections in the order a key is looked up; the first is used only in bidirectional mode.
constexpr std::string_view kBidirectionalSection = "apply_field_value_bidirectional";
constexpr std::array<Section, 6> kSections = {{
    {kBidirectionalSection, RuleKind::kFieldValue},
    {"apply_field_value", RuleKind::kFieldValue},
    {"apply_field", RuleKind::kField},
    {"apply_value", RuleKind::kValue},
    {"tcp_or_udp", RuleKind::kPort},
    {"ipv4_or_ipv6", RuleKind::kAddress},
}};

std::string port_term(const DashboardFilter& filter, const std::string& op, bool bidirectional) {
    if (bidirectional) {
        return "tcp.port" + op + filter.value + "||" + "udp.port" + op + filter.value;
    }
    std::string direction;
    if (filter.key == "L4_SRC_PORT") direction = "src";
    if (filter.key == "L4_DST_PORT") direction = "dst";
    if (direction.empty()) return "";
    return "tcp." + direction + "port" + op + filter.value + "||" + "udp." + direction + "port" +
           op + filter.value;
}

std::string address_term(const DashboardFilter& filter, const std::string& op, bool bidirectional) {
    std::string direction;
    if (filter.key == "IP_SRC") direction = "src";
    if (filter.key == "IP_DST") direction = "dst";
    if (direction.empty()) return "";
    std::string protocol;
    if (host::is_ipv4_address(filter.value)) protocol = "ip";
    if (host::is_ipv6_address(filter.value)) protocol = "ipv6";
    if (protocol.empty()) return "";
    return protocol + "." + (bidirectional ? "addr" : direction) + op + filter.value;
}

}  // namespace

void collect_user_filter(const std::string& name, const char* value,
                         std::vector<DashboardFilter>& filters) {
    if (name != "var-Filters" || value == nullptr) return;
    const std::string text(value);
    const size_t first = text.find('|');
    const size_t last = text.rfind('|');
    DashboardFilter filter;
    if (first == std::string::npos) {
        filter.key = text;
    } else {
        filter.key = text.substr(0, first);
        if (first < last) filter.op = text.substr(first + 1, last - first - 1);
        filter.value = text.substr(last + 1);
    }
    filters.push_back(std::move(filter));
    LOG_DEBUG("Found user filter: %s", value);
}

void collect_interface(const std::string& name, const char* value,
                       std::vector<std::string>& interfaces) {
    if (name != "var-esinterface" || value == nullptr || *value == '\0') return;
    if (std::string_view(value) == "All") return;
    interfaces.emplace_back(value);
    LOG_DEBUG("Found interface filter: %s", value);
}

std::string interface_filter(const std::vector<DashboardFilter>& filters) {
    for (const auto& filter : filters) {
        if (filter.key == "INTERFACE") return filter.value;
    }
    return "";
}

std::string translate_operator(const std::string& op) {
    if (op == "=" || op == "=~") return "==";
    if (op == "!~") return "!=";
    return op;
}

std::string rules_file_path() {
    return host::server_folder() + "/grafana_to_tshark.yaml";
}

std::string translate_filters(const std::vector<DashboardFilter>& filters, bool bidirectional) {
    return translate_filters(filters, bidirectional, rules_file_path());
}

std::string translate_filters(const std::vector<DashboardFilter>& filters, bool bidirectional,
                              const std::string& rules_path) {
    return translate_dashboard_filters(filters, bidirectional, rules_path).text;
}

TranslatedFilter translate_dashboard_filters(const std::vector<DashboardFilter>& filters,
                                             bool bidirectional, const std::string& rules_path) {
    TranslatedFilter translated;
    if (filters.empty()) return translated;
    std::string& result = translated.text;
    try {
        const YAML::Node rules = YAML::LoadFile(rules_path);
        bool complete = rules.IsMap();
        for (const auto& section : kSections) {
            complete = complete && rules[std::string(section.name)].IsDefined();
        }
        if (!complete) throw YAML::Exception(YAML::Mark::null_mark(), "missing section");

        for (const auto& filter : filters) {
            for (const auto& section : kSections) {
                if (section.name == kBidirectionalSection && !bidirectional) continue;
                const YAML::Node entries = rules[std::string(section.name)];
                if (!entries.IsMap() || !entries[filter.key].IsDefined()) continue;
                const YAML::Node entry = entries[filter.key];
                const std::string op = translate_operator(filter.op);
                std::string term;
                switch (section.kind) {
                    case RuleKind::kFieldValue:
                        term = entry.as<std::string>() + op + filter.value;
                        break;
                    case RuleKind::kField:
                        term = entry.as<std::string>();
                        break;
                    case RuleKind::kValue:
                        term = filter.value;
                        translated.has_raw_terms = true;
                        break;
                    case RuleKind::kPort:
                        term = port_term(filter, op, bidirectional);
                        break;
                    case RuleKind::kAddress:
                        term = address_term(filter, op, bidirectional);
                        break;
                }
                result += result.empty() ? "((" : " && (";
                result += term + ")";
                break;
            }
        }
    } catch (const YAML::Exception&) {
        LOG_ERROR("Unable to load filters file at: %s. The file is corrupted", rules_path.c_str());
        return {};
    }
    if (!result.empty()) result += ")";
    return translated;
}

}  // namespace vistrel::dashboard
