#include "agent/export/exporter.h"

#include <algorithm>

#include <fmt/format.h>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>
#include <boost/asio/post.hpp>

namespace vnagent {
namespace {

using Kind = OutputEvent::Kind;
using nlohmann::json;
using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

constexpr const char* kAgent = "agent";  // the place of problems of the source

std::string_view nameOf(ExportMode mode) {
  switch (mode) {
    case ExportMode::kRepair:
      return "repair";
    case ExportMode::kAddOnly:
      return "add-only";
    case ExportMode::kReport:
      break;
  }
  return "report";
}

// Gathers the families of a page.
class Page {
 public:
  void begin(const char* name, const char* help, MetricType type) {
    MetricFamily family;
    family.name = name;
    family.help = help;
    family.type = type;
    families_.push_back(std::move(family));
  }

  void add(double value, const char* label = nullptr, std::string_view text = {}) {
    ClientMetric metric;
    if (label != nullptr) metric.label.push_back({label, std::string(text)});
    if (families_.back().type == MetricType::Counter) {
      metric.counter.value = value;
    } else {
      metric.gauge.value = value;
    }
    families_.back().metric.push_back(std::move(metric));
  }

  std::string text() const { return prometheus::TextSerializer().Serialize(families_); }

 private:
  std::vector<MetricFamily> families_;
};

}  // namespace

Exporter::Exporter(boost::asio::io_context& context, const ExportMap& map, ExportMode mode,
                   Hooks hooks)
    : context_(context), mode_(mode), hooks_(std::move(hooks)), desired_(map, problems_) {
  problems_.changedIs(
      [this](ProblemKind kind, const std::string&, const std::string& text, bool isNew) {
        if (isNew) {
          hooks_.warn(fmt::format("{} ({})", text, vnagent::nameOf(kind)));
        } else {
          hooks_.log("no longer: " + text);
        }
      });
  const auto later = [this](auto work) { boost::asio::post(context_, std::move(work)); };
  for (size_t i = 0; i < desired_.size(); ++i) {
    switches_.push_back(std::make_unique<SwitchExporter>(
        context, map, desired_, i, mode, problems_,
        SwitchExporter::Hooks{.log = hooks_.log,
                              .desiredChanged =
                                  [this, later] {
                                    ++kicksDue_;
                                    later([this] {
                                      --kicksDue_;
                                      kickAll();
                                    });
                                  },
                              .settled = [this] { hooks_.settled(); }}));
  }
}

Exporter::~Exporter() = default;

void Exporter::start() {
  for (const auto& one : switches_) one->start();
}

void Exporter::stop() {
  for (const auto& one : switches_) one->stop();
}

void Exporter::take(const OutputEvent& event) {
  switch (event.kind) {
    case Kind::kDocument:
    case Kind::kPatch:
      apply(event);
      break;
    case Kind::kBookmark:
      revision_ = event.id;
      break;
    case Kind::kLost:
      problems_.set(ProblemKind::kUnreachable, kAgent, "the agent: " + event.text);
      return;
    case Kind::kEnd:
      isEnded_ = true;
      break;
    case Kind::kFault:
      hooks_.failed(event.text);
      return;
  }
  problems_.clear(ProblemKind::kUnreachable, kAgent);
  hooks_.settled();
}

void Exporter::apply(const OutputEvent& event) {
  try {
    if (event.kind == Kind::kDocument) {
      desired_.replace(event.data);
    } else {
      desired_.merge(event.data);
    }
  } catch (const InvalidOutput& error) {
    hooks_.failed(std::string("the output document is not one: ") + error.what());
    return;
  }
  revision_ = event.id;
  ++events_;
  kickAll();
}

void Exporter::kickAll() {
  // Nothing is known to be wanted, or not wanted, before the first document.
  if (events_ == 0) return;
  for (const auto& one : switches_) one->kick();
}

bool Exporter::isSettled(bool atEnd) const {
  return events_ > 0 && (isEnded_ || !atEnd) && kicksDue_ == 0 &&
         std::ranges::all_of(switches_, [](const auto& one) { return one->isSynced(); });
}

json Exporter::status() const {
  json switches = json::object();
  for (const auto& one : switches_) {
    const SwitchFigures figures = one->figures();
    switches[one->name()] = {
        {"connected", one->isConnected()},          {"locked", one->hasLock()},
        {"synced", one->isSynced() && events_ > 0}, {"logicalSwitches", one->logicalSwitches()},
        {"transactions", figures.transactions},     {"failures", figures.failures},
        {"waitedSeconds", figures.waited},          {"plannedSeconds", figures.planned},
        {"bytesSent", figures.bytesSent},           {"bytesReceived", figures.bytesReceived}};
    if (mode_ == ExportMode::kReport) switches[one->name()]["differences"] = one->differences();
  }
  json problems = json::array();
  for (const auto& [key, text] : problems_.all()) {
    problems.push_back(
        {{"kind", vnagent::nameOf(key.first)}, {"place", key.second}, {"text", text}});
  }
  return {{"mode", nameOf(mode_)},
          {"revision", revision_},
          {"events", events_},
          {"ended", isEnded_},
          {"synced", isSettled(false)},
          {"switches", std::move(switches)},
          {"problems", std::move(problems)}};
}

std::string Exporter::metrics() const {
  Page page;
  const auto forEach = [&](const char* name, const char* help, MetricType type,
                           const std::function<double(const SwitchExporter&)>& value) {
    page.begin(name, help, type);
    for (const auto& one : switches_) page.add(value(*one), "switch", one->name());
  };
  forEach("vnagent_export_connected", "1 while the switch's database answers", MetricType::Gauge,
          [](const auto& one) { return one.isConnected() ? 1 : 0; });
  forEach("vnagent_export_locked", "1 while the exporter has the database's lock",
          MetricType::Gauge, [](const auto& one) { return one.hasLock() ? 1 : 0; });
  forEach("vnagent_export_synced", "1 while the database is as the output document asks",
          MetricType::Gauge,
          [this](const auto& one) { return events_ > 0 && one.isSynced() ? 1 : 0; });
  forEach("vnagent_export_logical_switches", "Logical_Switches that the exporter owns",
          MetricType::Gauge,
          [](const auto& one) { return static_cast<double>(one.logicalSwitches()); });
  forEach("vnagent_export_transactions_total", "transactions sent", MetricType::Counter,
          [](const auto& one) { return static_cast<double>(one.figures().transactions); });
  forEach("vnagent_export_failed_transactions_total", "transactions that were not applied",
          MetricType::Counter,
          [](const auto& one) { return static_cast<double>(one.figures().failures); });
  forEach("vnagent_export_database_seconds_total", "time between transactions and their replies",
          MetricType::Counter, [](const auto& one) { return one.figures().waited; });
  forEach("vnagent_export_sent_bytes_total", "bytes sent to the database", MetricType::Counter,
          [](const auto& one) { return static_cast<double>(one.figures().bytesSent); });
  forEach("vnagent_export_received_bytes_total", "bytes received from the database",
          MetricType::Counter,
          [](const auto& one) { return static_cast<double>(one.figures().bytesReceived); });
  page.begin("vnagent_export_problems", "what cannot be done, by kind", MetricType::Gauge);
  for (size_t i = 0; i < kProblemKinds; ++i) {
    const auto kind = static_cast<ProblemKind>(i);
    page.add(static_cast<double>(problems_.count(kind)), "kind", vnagent::nameOf(kind));
  }
  page.begin("vnagent_export_events_total", "documents and patches taken from the source",
             MetricType::Counter);
  page.add(static_cast<double>(events_));
  return page.text();
}

}  // namespace vnagent
