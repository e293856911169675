#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "metrics/exposition.h"

// Counters, gauges and histograms kept in memory and written out on a scrape. Updating a metric
// is one atomic operation; only the first use of a new label combination takes a lock.
namespace vistrel::metrics {

class Counter {
  public:
    void add(uint64_t amount = 1) { value_.fetch_add(amount, std::memory_order_relaxed); }
    uint64_t value() const { return value_.load(std::memory_order_relaxed); }

  private:
    std::atomic<uint64_t> value_{0};
};

class Gauge {
  public:
    void set(int64_t value) { value_.store(value, std::memory_order_relaxed); }
    void add(int64_t amount) { value_.fetch_add(amount, std::memory_order_relaxed); }
    int64_t value() const { return value_.load(std::memory_order_relaxed); }

  private:
    std::atomic<int64_t> value_{0};
};

class Histogram {
  public:
    // `bounds`: the upper bounds of the buckets, ascending; +Inf is implied.
    explicit Histogram(std::vector<double> bounds);
    void observe(double value);

    const std::vector<double>& bounds() const { return bounds_; }
    // Cumulative counts per bound, then the +Inf bucket (= the count).
    std::vector<uint64_t> cumulative_counts() const;
    double sum() const { return sum_.load(std::memory_order_relaxed); }

  private:
    std::vector<double> bounds_;
    std::unique_ptr<std::atomic<uint64_t>[]> buckets_;  // one more than bounds: +Inf
    std::atomic<double> sum_{0};
};

// One metric name with its label names; a metric per combination of label values.
template <class Metric>
class Family {
  public:
    using Factory = std::function<std::unique_ptr<Metric>()>;

    Family(std::vector<std::string> label_names, Factory factory)
        : label_names_(std::move(label_names)), factory_(std::move(factory)) {}

    // The metric of these label values (as many as label names), made on first use. The
    // reference stays valid as long as the family.
    Metric& with(const std::vector<std::string>& values = {}) {
        std::lock_guard lock(mutex_);
        std::unique_ptr<Metric>& metric = metrics_[values];
        if (!metric) metric = factory_();
        return *metric;
    }

    // Calls `visit(labels, metric)` for each combination, in label order, under the lock.
    template <class Visit>
    void each(Visit visit) const {
        std::lock_guard lock(mutex_);
        for (const auto& [values, metric] : metrics_) {
            Labels labels;
            for (size_t i = 0; i < label_names_.size() && i < values.size(); ++i) {
                labels.emplace_back(label_names_[i], values[i]);
            }
            visit(labels, *metric);
        }
    }

  private:
    std::vector<std::string> label_names_;
    Factory factory_;
    mutable std::mutex mutex_;
    std::map<std::vector<std::string>, std::unique_ptr<Metric>> metrics_;
};

using CounterFamily = Family<Counter>;
using GaugeFamily = Family<Gauge>;
using HistogramFamily = Family<Histogram>;

class Registry {
  public:
    // Writes samples of state that lives elsewhere, at scrape time.
    using Collector = std::function<void(Exposition&)>;

    Registry() = default;
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    // The registry of the process, which /metrics writes out.
    static Registry& instance();

    // A family is registered once per name; asking again returns the same family.
    CounterFamily& counter(const std::string& name, const std::string& help,
                           std::vector<std::string> label_names = {});
    GaugeFamily& gauge(const std::string& name, const std::string& help,
                       std::vector<std::string> label_names = {});
    HistogramFamily& histogram(const std::string& name, const std::string& help,
                               std::vector<std::string> label_names, std::vector<double> bounds);

    // Collectors run after the families, in the order of their keys; the same key replaces,
    // an empty function removes.
    void set_collector(const std::string& key, Collector collector);

    std::string render() const;

  private:
    struct Entry {
        std::string help;
        MetricType type;
        std::shared_ptr<void> family;
        std::function<void(const std::string& name, Exposition&)> write;
    };

    template <class Metric>
    Family<Metric>& add(const std::string& name, const std::string& help, MetricType type,
                        std::vector<std::string> label_names,
                        typename Family<Metric>::Factory factory);

    mutable std::mutex mutex_;
    std::map<std::string, Entry> entries_;
    std::map<std::string, Collector> collectors_;
};

}  // namespace vistrel::metrics
