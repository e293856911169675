#include "metrics/registry.h"

#include <algorithm>

namespace vistrel::metrics {

Histogram::Histogram(std::vector<double> bounds)
    : bounds_(std::move(bounds)),
      buckets_(std::make_unique<std::atomic<uint64_t>[]>(bounds_.size() + 1)) {
    std::sort(bounds_.begin(), bounds_.end());
}

void Histogram::observe(double value) {
    const size_t bucket = static_cast<size_t>(
        std::lower_bound(bounds_.begin(), bounds_.end(), value) - bounds_.begin());
    buckets_[bucket].fetch_add(1, std::memory_order_relaxed);
    sum_.fetch_add(value, std::memory_order_relaxed);
}

std::vector<uint64_t> Histogram::cumulative_counts() const {
    std::vector<uint64_t> counts;
    uint64_t total = 0;
    for (size_t i = 0; i <= bounds_.size(); ++i) {
        total += buckets_[i].load(std::memory_order_relaxed);
        counts.push_back(total);
    }
    return counts;
}

Registry& Registry::instance() {
    static Registry registry;
    return registry;
}

template <class Metric>
Family<Metric>& Registry::add(const std::string& name, const std::string& help, MetricType type,
                              std::vector<std::string> label_names,
                              typename Family<Metric>::Factory factory) {
    std::lock_guard lock(mutex_);
    auto found = entries_.find(name);
    if (found != entries_.end()) return *static_cast<Family<Metric>*>(found->second.family.get());
    auto family = std::make_shared<Family<Metric>>(std::move(label_names), std::move(factory));
    Entry entry{help, type, family, {}};
    Family<Metric>* raw = family.get();
    if constexpr (std::is_same_v<Metric, Histogram>) {
        entry.write = [raw](const std::string& metric, Exposition& out) {
            raw->each([&](const Labels& labels, const Histogram& histogram) {
                const std::vector<uint64_t> counts = histogram.cumulative_counts();
                for (size_t i = 0; i < counts.size(); ++i) {
                    Labels bucket = labels;
                    bucket.emplace_back("le", i < histogram.bounds().size()
                                                  ? Exposition::format_value(histogram.bounds()[i])
                                                  : "+Inf");
                    out.sample(metric + "_bucket", bucket, static_cast<double>(counts[i]));
                }
                out.sample(metric + "_sum", labels, histogram.sum());
                out.sample(metric + "_count", labels, static_cast<double>(counts.back()));
            });
        };
    } else {
        entry.write = [raw](const std::string& metric, Exposition& out) {
            raw->each([&](const Labels& labels, const Metric& value) {
                out.sample(metric, labels, static_cast<double>(value.value()));
            });
        };
    }
    entries_.emplace(name, std::move(entry));
    return *raw;
}

CounterFamily& Registry::counter(const std::string& name, const std::string& help,
                                 std::vector<std::string> label_names) {
    return add<Counter>(name, help, MetricType::kCounter, std::move(label_names),
                        [] { return std::make_unique<Counter>(); });
}

GaugeFamily& Registry::gauge(const std::string& name, const std::string& help,
                             std::vector<std::string> label_names) {
    return add<Gauge>(name, help, MetricType::kGauge, std::move(label_names),
                      [] { return std::make_unique<Gauge>(); });
}

HistogramFamily& Registry::histogram(const std::string& name, const std::string& help,
                                     std::vector<std::string> label_names,
                                     std::vector<double> bounds) {
    return add<Histogram>(name, help, MetricType::kHistogram, std::move(label_names),
                          [bounds] { return std::make_unique<Histogram>(bounds); });
}

void Registry::set_collector(const std::string& key, Collector collector) {
    std::lock_guard lock(mutex_);
    if (collector) {
        collectors_[key] = std::move(collector);
    } else {
        collectors_.erase(key);
    }
}

std::string Registry::render() const {
    Exposition out;
    std::map<std::string, Collector> collectors;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [name, entry] : entries_) {
            out.family(name, entry.help, entry.type);
            entry.write(name, out);
        }
        collectors = collectors_;
    }
    // Outside the lock: a collector may take locks of its own subsystem.
    for (const auto& [key, collector] : collectors) collector(out);
    return out.text();
}

}  // namespace vistrel::metrics
