// Metric families from the daemon's counters, and the HTTP endpoint that
// serves them through the pull exposer of prometheus-cpp.
#include "unixmdc/metrics.h"

#include <cmath>
#include <exception>
#include <limits>
#include <memory>

#include <prometheus/collectable.h>
#include <prometheus/exposer.h>

#include "sp/lease_admin.h"
#include "unixmdc/kestrixd.h"
#include "utils/ksxmem.h"
#include "utils/kxstats.h"
#include "utils/log.h"

namespace kestrix {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

constexpr double kNsPerSecond = 1e9;

MetricFamily Family(const char* name, const char* help, MetricType type) {
  return MetricFamily{name, help, type, {}};
}

ClientMetric Value(MetricType type, double value, std::vector<ClientMetric::Label> labels = {}) {
  ClientMetric m;
  m.label = std::move(labels);
  if (type == MetricType::Counter) m.counter.value = value;
  else m.gauge.value = value;
  return m;
}

ClientMetric Histogram(const stats::Histogram& h, std::vector<ClientMetric::Label> labels) {
  ClientMetric m;
  m.label = std::move(labels);
  uint64_t cumulative = 0;
  for (size_t i = 0; i < h.buckets.size(); ++i) {
    cumulative += h.buckets[i].load(std::memory_order_relaxed);
    const double bound = i < stats::kBucketBoundsNs.size()
                             ? static_cast<double>(stats::kBucketBoundsNs[i]) / kNsPerSecond
                             : std::numeric_limits<double>::infinity();
    m.histogram.bucket.push_back({cumulative, bound});
  }
  m.histogram.sample_count = cumulative;
  m.histogram.sample_sum =
      static_cast<double>(h.sumNs.load(std::memory_order_relaxed)) / kNsPerSecond;
  return m;
}

std::string ResultLabel(int64_t result) {
  return result == stats::kNoReply ? "none" : std::to_string(result);
}

void AddRequests(std::vector<MetricFamily>* out) {
  MetricFamily requests = Family("kestrix_requests_total",
                                 "Requests answered, by function and result", MetricType::Counter);
  MetricFamily latency =
      Family("kestrix_request_duration_seconds",
             "Time from a request's receipt to its reply being ready", MetricType::Histogram);
  for (int slot = 0; slot < stats::kFunctionSlots; ++slot) {
    const char* function = stats::FunctionName(slot);
    if (function == nullptr) continue;
    for (const stats::ResultCount& r : stats::RequestResults(slot)) {
      requests.metric.push_back(Value(MetricType::Counter, static_cast<double>(r.count),
                                      {{"function", function}, {"result", ResultLabel(r.result)}}));
    }
    if (uint64_t other = stats::OtherResults(slot); other != 0) {
      requests.metric.push_back(Value(MetricType::Counter, static_cast<double>(other),
                                      {{"function", function}, {"result", "other"}}));
    }
    latency.metric.push_back(Histogram(stats::RequestLatency(slot), {{"function", function}}));
  }
  out->push_back(std::move(requests));
  out->push_back(std::move(latency));
}

void AddLibraryCalls(std::vector<MetricFamily>* out) {
  MetricFamily calls = Family("kestrix_library_calls_total",
                              "Calls of the filesystem libraries, by entry point",
                              MetricType::Counter);
  MetricFamily latency = Family("kestrix_library_call_duration_seconds",
                                "Duration of the filesystem libraries' calls, by entry point",
                                MetricType::Histogram);
  for (int entry = stats::kFirstTimedEntry; entry < stats::kLibraryEntries; ++entry) {
    const char* name = stats::LibraryEntryName(entry);
    calls.metric.push_back(Value(
        MetricType::Counter, static_cast<double>(stats::LibraryCalls(entry)), {{"entry", name}}));
    latency.metric.push_back(Histogram(stats::LibraryLatency(entry), {{"entry", name}}));
  }
  out->push_back(std::move(calls));
  out->push_back(std::move(latency));
}

void AddSingle(std::vector<MetricFamily>* out, const char* name, const char* help, MetricType type,
               double value) {
  MetricFamily f = Family(name, help, type);
  f.metric.push_back(Value(type, value));
  out->push_back(std::move(f));
}

void AddState(std::vector<MetricFamily>* out) {
  FSULONG answered = 0, inProcess = 0;
  if (info != nullptr) TrackerCounts(info, &answered, &inProcess);
  MetricFamily tracker = Family("kestrix_tracker_entries",
                                "Entries of the duplicate-request tracker", MetricType::Gauge);
  tracker.metric.push_back(Value(MetricType::Gauge, answered, {{"state", "answered"}}));
  tracker.metric.push_back(Value(MetricType::Gauge, inProcess, {{"state", "in_process"}}));
  out->push_back(std::move(tracker));

  double reading = 0, writing = 0;
  for (const LeaseView& lease : ListLeases()) (lease.intention == 1 ? reading : writing) += 1;
  MetricFamily leases =
      Family("kestrix_leases_open", "Leases held, by intention", MetricType::Gauge);
  leases.metric.push_back(Value(MetricType::Gauge, reading, {{"intention", "read"}}));
  leases.metric.push_back(Value(MetricType::Gauge, writing, {{"intention", "write"}}));
  out->push_back(std::move(leases));

  uint32_t bytes = 0, unused = 0;
  ksxmem_stats(&bytes, &unused);
  AddSingle(out, "kestrix_allocator_bytes", "Bytes held through the tracking allocator",
            MetricType::Gauge, bytes);
}

void AddCounters(std::vector<MetricFamily>* out) {
  AddSingle(out, "kestrix_duplicates_answered_total",
            "Duplicate requests answered with the stored reply", MetricType::Counter,
            __atomic_load_n(&numDupsRepliedTo, __ATOMIC_RELAXED));
  AddSingle(out, "kestrix_duplicates_dropped_total",
            "Duplicate requests dropped while the first was in process", MetricType::Counter,
            __atomic_load_n(&numDupsDropped, __ATOMIC_RELAXED));
  AddSingle(out, "kestrix_leases_expired_total", "Leases ended by expiry", MetricType::Counter,
            static_cast<double>(stats::LeasesExpired()));
  AddSingle(out, "kestrix_leases_revoked_total", "Leases ended by an administrator",
            MetricType::Counter, static_cast<double>(stats::LeasesRevoked()));
  AddSingle(out, "kestrix_header_refused_total",
            "Datagrams refused for their header's length field", MetricType::Counter,
            static_cast<double>(stats::HeaderRefused()));
  MetricFamily lines = Family("kestrix_log_lines_total", "Log lines written, by level",
                              MetricType::Counter);
  for (int level = KSX_PANIC; level <= KSX_HIGH; ++level) {
    lines.metric.push_back(Value(MetricType::Counter, static_cast<double>(stats::LogLines(level)),
                                 {{"level", LogLevel2Str[level]}}));
  }
  out->push_back(std::move(lines));
}

const char* TypeName(MetricType type) {
  switch (type) {
    case MetricType::Counter: return "counter";
    case MetricType::Gauge: return "gauge";
    case MetricType::Histogram: return "histogram";
    default: return "untyped";
  }
}

class DaemonCollector : public prometheus::Collectable {
 public:
  std::vector<MetricFamily> Collect() const override { return CollectMetrics(); }
};

}  // namespace

std::vector<MetricFamily> CollectMetrics() {
  std::vector<MetricFamily> families;
  AddRequests(&families);
  AddLibraryCalls(&families);
  AddState(&families);
  AddCounters(&families);
  return families;
}

nlohmann::json MetricsJson() {
  nlohmann::json families = nlohmann::json::array();
  for (const MetricFamily& f : CollectMetrics()) {
    nlohmann::json samples = nlohmann::json::array();
    for (const ClientMetric& m : f.metric) {
      nlohmann::json sample = {{"labels", nlohmann::json::object()}};
      for (const auto& label : m.label) sample["labels"][label.name] = label.value;
      if (f.type == MetricType::Histogram) {
        sample["count"] = m.histogram.sample_count;
        sample["sum"] = m.histogram.sample_sum;
        nlohmann::json buckets = nlohmann::json::array();
        for (const auto& b : m.histogram.bucket) {
          // JSON has no infinity; the last bucket's bound is written as null.
          buckets.push_back(
              {std::isinf(b.upper_bound) ? nlohmann::json() : nlohmann::json(b.upper_bound),
               b.cumulative_count});
        }
        sample["buckets"] = std::move(buckets);
      } else {
        sample["value"] = f.type == MetricType::Counter ? m.counter.value : m.gauge.value;
      }
      samples.push_back(std::move(sample));
    }
    families.push_back({{"name", f.name}, {"help", f.help}, {"type", TypeName(f.type)},
                        {"samples", std::move(samples)}});
  }
  return families;
}

bool StartMetricsEndpoint(const std::string& address, std::string* why) {
  // Both live as long as the process; the exposer's threads serve each scrape.
  static std::shared_ptr<DaemonCollector> collector = std::make_shared<DaemonCollector>();
  static std::unique_ptr<prometheus::Exposer> exposer;
  try {
    exposer = std::make_unique<prometheus::Exposer>(address, 1);
  } catch (const std::exception& e) {
    *why = e.what();
    return false;
  }
  exposer->RegisterCollectable(collector);
  return true;
}

}  // namespace kestrix
