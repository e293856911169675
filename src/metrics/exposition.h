#pragma once

#include <string>
#include <utility>
#include <vector>

// The Prometheus text exposition format (version 0.0.4), written by hand: Debian packages no
// C++ client for it.
namespace vistrel::metrics {

using Labels = std::vector<std::pair<std::string, std::string>>;

enum class MetricType { kCounter, kGauge, kHistogram };

class Exposition {
  public:
    static constexpr const char* kContentType = "text/plain; version=0.0.4; charset=utf-8";

    // "# HELP" and "# TYPE" lines; every sample of the family follows before the next family.
    void family(const std::string& name, const std::string& help, MetricType type);
    void sample(const std::string& name, const Labels& labels, double value);

    const std::string& text() const { return text_; }

    // Backslash, double quote and line feed escaped as the format requires.
    static std::string escape_label_value(const std::string& value);
    // Integers without a fraction, +Inf, -Inf and NaN spelled as the format requires.
    static std::string format_value(double value);

  private:
    std::string text_;
};

}  // namespace vistrel::metrics
