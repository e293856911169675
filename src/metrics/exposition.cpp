#include "metrics/exposition.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace vistrel::metrics {

namespace {

const char* type_name(MetricType type) {
    switch (type) {
        case MetricType::kCounter:
            return "counter";
        case MetricType::kGauge:
            return "gauge";
        case MetricType::kHistogram:
            return "histogram";
    }
    return "untyped";
}

// Help texts escape only backslash and line feed.
std::string escape_help(const std::string& help) {
    std::string escaped;
    for (char c : help) {
        if (c == '\\') {
            escaped += "\\\\";
        } else if (c == '\n') {
            escaped += "\\n";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

}  // namespace

void Exposition::family(const std::string& name, const std::string& help, MetricType type) {
    text_ += "# HELP " + name + " " + escape_help(help) + "\n";
    text_ += "# TYPE " + name + " " + type_name(type) + "\n";
}

void Exposition::sample(const std::string& name, const Labels& labels, double value) {
    text_ += name;
    if (!labels.empty()) {
        text_ += '{';
        for (size_t i = 0; i < labels.size(); ++i) {
            if (i > 0) text_ += ',';
            text_ += labels[i].first + "=\"" + escape_label_value(labels[i].second) + "\"";
        }
        text_ += '}';
    }
    text_ += ' ' + format_value(value) + '\n';
}

std::string Exposition::escape_label_value(const std::string& value) {
    std::string escaped;
    escaped.reserve(value.size());
    for (char c : value) {
        if (c == '\\') {
            escaped += "\\\\";
        } else if (c == '"') {
            escaped += "\\\"";
        } else if (c == '\n') {
            escaped += "\\n";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

std::string Exposition::format_value(double value) {
    if (std::isnan(value)) return "NaN";
    if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
    char buffer[32];
    // Counts up to 2^53 are exact in a double and are written without a fraction.
    if (value == std::trunc(value) && std::fabs(value) < 9007199254740992.0) {
        std::snprintf(buffer, sizeof buffer, "%.0f", value);
    } else {
        // The shortest of the usual precisions that reads back as the same value.
        for (int precision : {15, 16, 17}) {
            std::snprintf(buffer, sizeof buffer, "%.*g", precision, value);
            if (std::strtod(buffer, nullptr) == value) break;
        }
    }
    return buffer;
}

}  // namespace vistrel::metrics
