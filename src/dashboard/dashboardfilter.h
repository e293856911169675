#pragma once

#include <string>
#include <vector>

namespace vistrel::dashboard {

// One ad-hoc filter of the dashboard, "key|op|value" in its query string.
struct DashboardFilter {
    std::string key;
    std::string op;
    std::string value;

    bool operator==(const DashboardFilter&) const = default;
};

// Query-argument visitors, called once per GET argument (value null when it has none).
// "var-Filters" values become filters; "var-esinterface" values other than "All" interfaces.
void collect_user_filter(const std::string& name, const char* value,
                         std::vector<DashboardFilter>& filters);
void collect_interface(const std::string& name, const char* value,
                       std::vector<std::string>& interfaces);

// The value of the first filter keyed "INTERFACE", or empty text.
std::string interface_filter(const std::vector<DashboardFilter>& filters);

// "=" and "=~" become "==", "!~" becomes "!="; others stay.
std::string translate_operator(const std::string& op);

// <server folder>/grafana_to_tshark.yaml
std::string rules_file_path();

// The tshark display filter of the filters by the rules file: "((A) && (B))", or empty text
// when no filter applies or the rules file is unusable (logged).
std::string translate_filters(const std::vector<DashboardFilter>& filters, bool bidirectional);
std::string translate_filters(const std::vector<DashboardFilter>& filters, bool bidirectional,
                              const std::string& rules_path);

// The same, and whether a term is the user's own display-filter text (an `apply_value` rule),
// which only tshark reads as the user meant it.
struct TranslatedFilter {
    std::string text;
    bool has_raw_terms = false;
};
TranslatedFilter translate_dashboard_filters(const std::vector<DashboardFilter>& filters,
                                             bool bidirectional, const std::string& rules_path);

}  // namespace vistrel::dashboard
