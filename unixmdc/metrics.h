// The daemon's metrics as metric families: the counters of utils/kxstats.h
// plus gauges read when asked (tracker entries, open leases, allocator
// bytes). The admin socket's "stats" and the HTTP endpoint of
// KESTRIX_METRICS both show these.
#ifndef KESTRIX_UNIXMDC_METRICS_H_
#define KESTRIX_UNIXMDC_METRICS_H_

#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <prometheus/metric_family.h>

namespace kestrix {

std::vector<prometheus::MetricFamily> CollectMetrics();

// The same families as JSON: [{"name", "help", "type", "samples": [{"labels":
// {...}, "value"} or, for histograms, {"labels", "count", "sum",
// "buckets": [[bound, cumulative count], ...]}]}].
nlohmann::json MetricsJson();

// Serves the metrics in the text exposition format at
// http://ADDRESS:PORT/metrics on threads of its own. False, with why, when
// the address cannot be bound.
bool StartMetricsEndpoint(const std::string& address, std::string* why);

}  // namespace kestrix

#endif  // KESTRIX_UNIXMDC_METRICS_H_
