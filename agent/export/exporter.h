// An export: follows output documents and keeps the databases of all switches of a map.
//
//   boost::asio::io_context context;
//   Exporter exporter(context, map, ExportMode::kRepair, hooks);
//   exporter.start();
//   exporter.take(event) ... on the thread that runs the context
//
// One thread, that of the context.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <nlohmann/json.hpp>

#include "agent/export/output_source.h"
#include "agent/export/switch_exporter.h"

namespace vnagent {

class Exporter {
 public:
  struct Hooks {
    std::function<void(const std::string& text)> log;     // what was done
    std::function<void(const std::string& text)> warn;    // what cannot be done
    std::function<void()> settled = [] {};                // isSettled() may be another now
    std::function<void(const std::string& text)> failed;  // the source ended with a fault
  };

  // `map` is kept by the caller. Throws std::invalid_argument for a database that is none.
  Exporter(boost::asio::io_context& context, const ExportMap& map, ExportMode mode, Hooks hooks);
  ~Exporter();

  void start();
  void stop();
  void take(const OutputEvent& event);

  // Lookup.

  // Every switch is as the last document says, as far as it can be. `atEnd`: and no document is to
  // follow. False before the first document.
  bool isSettled(bool atEnd) const;
  // No problem but those that a document or a map has.
  const Problems& problems() const { return problems_; }
  const std::vector<std::unique_ptr<SwitchExporter>>& switches() const { return switches_; }
  // What --status and /status show.
  nlohmann::json status() const;
  // The text of Prometheus.
  std::string metrics() const;

 private:
  void kickAll();
  void apply(const OutputEvent& event);

  boost::asio::io_context& context_;
  const ExportMode mode_;
  const Hooks hooks_;
  Problems problems_;
  Desired desired_;
  std::vector<std::unique_ptr<SwitchExporter>> switches_;
  std::string revision_;  // of the last event
  uint64_t events_ = 0;   // documents and patches
  size_t kicksDue_ = 0;   // posted: what one switch's address changed for others
  bool isEnded_ = false;
};

}  // namespace vnagent
