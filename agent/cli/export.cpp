// vnagent export: the output document, written to the databases of switches.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>

#include <fmt/format.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include "agent/cli/client_support.h"
#include "agent/cli/input_file.h"
#include "agent/export/exporter.h"
#include "agent/export/status_server.h"
#include "agent/json/utf8.h"

namespace vnagent {
namespace {

namespace asio = boost::asio;

constexpr const char* kDefaultControl = "/run/vnagent/export.sock";

// What was done, beside the warnings.
void log(const std::string& text) {
  const std::string line = "vnagent: " + escapeControls(text) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

ExportMap readMap(const std::string& file) {
  try {
    return ExportMap::parse(readFile(file));
  } catch (const InvalidMap& error) {
    throw InvalidMap(fmt::format("{}: {}", inputName(file), error.what()));
  }
}

std::string controlOf(const ExportOptions& options) {
  return options.control.empty() ? kDefaultControl : options.control;
}

// One thread reads the source, and hands on what it reads to the thread of the context for as long
// as that wants it.
class SourceThread {
 public:
  SourceThread(asio::io_context& context, Exporter& exporter)
      : shared_(std::make_shared<Shared>()) {
    shared_->context = &context;
    shared_->exporter = &exporter;
  }

  ~SourceThread() {
    const std::lock_guard guard(shared_->mutex);
    shared_->context = nullptr;
  }

  // The thread waits for input that may never come, so that nobody waits for its end.
  void start(const ExportOptions& options) {
    // Returns when the event was taken, so that only one is in memory. It is this thread that frees
    // it: the other one has a database to talk to.
    const auto deliver = [shared = shared_](const OutputEvent& event) {
      std::promise<void> taken;
      const std::future<void> isTaken = taken.get_future();
      {
        const std::lock_guard guard(shared->mutex);
        if (shared->context == nullptr) return false;
        asio::post(*shared->context, [shared, &event, taken = std::move(taken)]() mutable {
          if (shared->context != nullptr) shared->exporter->take(event);
          taken.set_value();
        });
      }
      isTaken.wait();  // also ends when the context does
      return true;
    };
    if (options.outputs.empty()) {
      std::thread([agent = connected(options), deliver] {
        run([&] { followAgent(agent, deliver); }, deliver);
      }).detach();
    } else {
      std::thread([file = options.outputs, deliver] {
        run([&] { readFrom(file, deliver); }, deliver);
      }).detach();
    }
  }

 private:
  struct Shared {
    std::mutex mutex;
    asio::io_context* context = nullptr;  // null: nothing is wanted any more
    Exporter* exporter = nullptr;
  };

  static void run(const std::function<void()>& work, const DeliverOutput& deliver) {
    try {
      work();
    } catch (const std::exception& error) {
      deliver({OutputEvent::Kind::kFault, {}, {}, error.what()});
    }
  }

  static void readFrom(const std::string& file, const DeliverOutput& deliver) {
    if (file == "-") {
      std::ios::sync_with_stdio(false);  // or each character is read by itself
      readOutputs(std::cin, deliver);
      return;
    }
    std::ifstream in(file);
    if (!in) {
      deliver({OutputEvent::Kind::kFault, {}, {}, "cannot be opened"});
      return;
    }
    readOutputs(in, deliver);
  }

  std::shared_ptr<Shared> shared_;
};

void printStatus(const Json& status) {
  Table table({"switch", "connected", "locked", "synced", "logical switches", "transactions"});
  const auto yes = [](const Json& value) { return std::string(value == true ? "yes" : "no"); };
  for (const auto& [name, one] : memberOf(status, "switches").items()) {
    table.add({name, yes(memberOf(one, "connected")), yes(memberOf(one, "locked")),
               yes(memberOf(one, "synced")), textOf(memberOf(one, "logicalSwitches")),
               textOf(memberOf(one, "transactions"))});
  }
  printOut(fmt::format("mode {}, revision {}\n", textOf(memberOf(status, "mode")),
                       textOf(memberOf(status, "revision"))));
  printTable(table);
  for (const Json& problem : memberOf(status, "problems")) {
    printOut(fmt::format("{} ({})\n", escapeControls(textOf(memberOf(problem, "text"))),
                         textOf(memberOf(problem, "kind"))));
  }
}

ExitStatus showStatus(const ExportOptions& options) {
  const HttpClient client(Endpoint::ofSocket(controlOf(options)));
  const HttpResponse response =
      client.send({.method = "GET", .target = "/status", .deadline = options.deadline});
  const Json status = Json::parse(response.body, nullptr, false);
  if (response.status != 200 || !status.is_object()) {
    throw Unreachable(controlOf(options) + ": no exporter answers there");
  }
  if (options.json) {
    printJson(status, true);
  } else {
    printStatus(status);
  }
  return memberOf(status, "synced") == true ? ExitStatus::kOk : ExitStatus::kNotYet;
}

// The differences that a report found. Returns whether there are any.
bool printReport(const Exporter& exporter, bool json) {
  bool isDifferent = false;
  for (const auto& one : exporter.switches()) {
    isDifferent = isDifferent || !one->differences().empty();
  }
  if (json) {
    printJson(exporter.status(), true);
    return isDifferent;
  }
  for (const auto& one : exporter.switches()) {
    if (!one->isSynced()) {
      printOut(one->name() + ": not compared\n");
    } else if (one->differences().empty()) {
      printOut(one->name() + ": no difference\n");
    }
    for (const std::string& line : one->differences()) {
      printOut(escapeControls(fmt::format("{}: {}", one->name(), line)) + "\n");
    }
  }
  return isDifferent;
}

// The process of one export: the context, and how it ends.
class ExportRun {
 public:
  explicit ExportRun(const ExportOptions& options)
      : options_(options),
        map_(readMap(options.map)),
        endsWhenSettled_(options.once || options.mode == ExportMode::kReport),
        exporter_(context_, map_, options.mode,
                  {.log =
                       [this](const std::string& text) {
                         if (!isReport()) log(text);
                       },
                   .warn = reportNote,
                   .settled = [this] { looksSettled(); },
                   .failed = [this](const std::string& text) { fail(text); }}),
        server_(context_, {.status = [this] { return exporter_.status().dump() + "\n"; },
                           .metrics = [this] { return exporter_.metrics(); }}),
        signals_(context_, SIGINT, SIGTERM),
        deadline_(context_),
        source_(context_, exporter_) {}

  ExitStatus run() {
    std::signal(SIGPIPE, SIG_IGN);
    listen();
    signals_.async_wait([this](const boost::system::error_code& error, int) {
      if (!error) end(endsWhenSettled_ ? ExitStatus::kNotYet : ExitStatus::kOk);
    });
    if (endsWhenSettled_) {
      deadline_.expires_after(std::chrono::duration_cast<std::chrono::milliseconds>(
          std::chrono::duration<double>(options_.deadline)));
      deadline_.async_wait([this](const boost::system::error_code& error) {
        if (error) return;
        reportError(fmt::format("not done within {} s", options_.deadline));
        end(ExitStatus::kNotYet);
      });
    }
    exporter_.start();
    source_.start(options_);
    context_.run();
    if (isReport() && status_ != ExitStatus::kUnreadable) {
      const bool isDifferent = printReport(exporter_, options_.json);
      if (isDifferent) status_ = ExitStatus::kNotYet;
    }
    exporter_.stop();
    return status_;
  }

 private:
  bool isReport() const { return options_.mode == ExportMode::kReport; }

  // A report has no state to ask for, and may be made beside the exporter that listens there.
  void listen() {
    if (!options_.metrics.empty()) {
      const unsigned short port = server_.listenOnTcp(options_.metrics);
      log(fmt::format("metrics on port {}", port));
    }
    if (isReport() || (options_.control.empty() && endsWhenSettled_)) return;
    try {
      server_.listenOnSocket(controlOf(options_));
    } catch (const CannotServeStatus& error) {
      if (!options_.control.empty()) throw;
      reportNote(fmt::format("no status is served: {}", error.what()));
    }
  }

  void looksSettled() {
    if (!endsWhenSettled_ || isLooking_) return;
    isLooking_ = true;
    // After what is posted already, such as changes that one switch's address makes for others.
    asio::post(context_, [this] {
      isLooking_ = false;
      if (exporter_.isSettled(!options_.outputs.empty())) end(ExitStatus::kOk);
    });
  }

  void fail(const std::string& text) {
    reportError(
        options_.outputs.empty() ? text : fmt::format("{}: {}", inputName(options_.outputs), text));
    end(ExitStatus::kUnreadable);
  }

  void end(ExitStatus status) {
    if (context_.stopped()) return;
    status_ = status;
    server_.stop();
    context_.stop();
  }

  const ExportOptions& options_;
  const ExportMap map_;
  const bool endsWhenSettled_;
  asio::io_context context_;
  Exporter exporter_;
  StatusServer server_;
  asio::signal_set signals_;
  asio::steady_timer deadline_;
  SourceThread source_;
  ExitStatus status_ = ExitStatus::kOk;
  bool isLooking_ = false;
};

}  // namespace

ExitStatus exportHardwareVtep(const ExportOptions& options) {
  if (options.status) return showStatus(options);
  if (options.map.empty()) throw RejectedArgument("--map is required; see vnagent export --help");
  try {
    return ExportRun(options).run();
  } catch (const InvalidMap& error) {
    reportError(error.what());
    return ExitStatus::kRefused;
  } catch (const CannotServeStatus& error) {
    reportError(error.what());
    return ExitStatus::kUnreadable;
  }
}

}  // namespace vnagent
