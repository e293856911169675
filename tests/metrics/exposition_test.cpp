// The exposition text the registry writes: families, labels, histograms and collectors.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <thread>
#include <vector>

#include "metrics/registry.h"

namespace vistrel::metrics {
namespace {

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(ExpositionTest, EscapesLabelValuesAndSpellsSpecialValues) {
    EXPECT_EQ(Exposition::escape_label_value("a\\b\"c\nd"), "a\\\\b\\\"c\\nd");
    EXPECT_EQ(Exposition::format_value(-3), "-3");
    EXPECT_EQ(Exposition::format_value(0.005), "0.005");
    EXPECT_EQ(Exposition::format_value(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(Exposition::format_value(std::numeric_limits<double>::infinity()), "+Inf");
    EXPECT_EQ(Exposition::format_value(-std::numeric_limits<double>::infinity()), "-Inf");
    EXPECT_EQ(Exposition::format_value(std::nan("")), "NaN");
    // Past 2^53 a double no longer holds every integer; it is written as it is held.
    EXPECT_EQ(Exposition::format_value(1e300), "1e+300");
}

TEST(RegistryTest, WritesEachFamilyOnceWithItsSamples) {
    Registry registry;
    CounterFamily& requests = registry.counter("t_requests_total", "Requests\nby path", {"path"});
    requests.with({"/a"}).add(2);
    requests.with({"/b\"x"}).add();
    // Asking again for a name gives the family already made.
    registry.counter("t_requests_total", "ignored", {"path"}).with({"/a"}).add();
    registry.gauge("t_level", "Level").with().set(-7);

    const std::string text = registry.render();
    EXPECT_EQ(text,
              "# HELP t_level Level\n"
              "# TYPE t_level gauge\n"
              "t_level -7\n"
              "# HELP t_requests_total Requests\\nby path\n"
              "# TYPE t_requests_total counter\n"
              "t_requests_total{path=\"/a\"} 3\n"
              "t_requests_total{path=\"/b\\\"x\"} 1\n");
}

TEST(RegistryTest, HistogramBucketsAreCumulativeWithSumAndCount) {
    Registry registry;
    Histogram& histogram =
        registry.histogram("t_seconds", "Durations", {"op"}, {1, 0.125}).with({"x"});
    for (double value : {0.0625, 0.125, 0.5, 4.0}) histogram.observe(value);

    const std::string text = registry.render();
    // Bounds are sorted; a value equal to a bound falls into that bucket.
    EXPECT_TRUE(contains(text, "t_seconds_bucket{op=\"x\",le=\"0.125\"} 2\n")) << text;
    EXPECT_TRUE(contains(text, "t_seconds_bucket{op=\"x\",le=\"1\"} 3\n")) << text;
    EXPECT_TRUE(contains(text, "t_seconds_bucket{op=\"x\",le=\"+Inf\"} 4\n")) << text;
    EXPECT_TRUE(contains(text, "t_seconds_sum{op=\"x\"} 4.6875\n")) << text;
    EXPECT_TRUE(contains(text, "t_seconds_count{op=\"x\"} 4\n")) << text;
}

TEST(RegistryTest, CollectorsAreReplacedAndRemovedByKey) {
    Registry registry;
    auto write = [](double value) {
        return [value](Exposition& out) {
            out.family("t_state", "State", MetricType::kGauge);
            out.sample("t_state", {}, value);
        };
    };
    registry.set_collector("state", write(1));
    registry.set_collector("state", write(2));
    EXPECT_EQ(registry.render(), "# HELP t_state State\n# TYPE t_state gauge\nt_state 2\n");
    registry.set_collector("state", nullptr);
    EXPECT_EQ(registry.render(), "");
}

TEST(RegistryTest, CountsFromManyThreadsAreExact) {
    Registry registry;
    CounterFamily& family = registry.counter("t_total", "Total", {"worker"});
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w) {
        workers.emplace_back([&family, w] {
            for (int i = 0; i < 10000; ++i) family.with({std::to_string(w % 2)}).add();
        });
    }
    for (std::thread& worker : workers) worker.join();
    EXPECT_EQ(family.with({"0"}).value() + family.with({"1"}).value(), 40000u);
}

}  // namespace
}  // namespace vistrel::metrics
