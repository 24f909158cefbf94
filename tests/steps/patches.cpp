// Applies each kind of patch to a session on a cloud of a given size, for check.py to count its
// steps: from the line of the event to the merge patch on the output.
//
//   valgrind --tool=callgrind --instr-atstart=no --combine-dumps=yes patches SHAPE...
//
// SHAPE is that of operations.cpp; notifications that wait are not made. Each patch is dumped under
// the name of its kind. Run without valgrind, it counts nothing.
//
// A set of the output is printed whole where it changes, so that each host has as many ports in
// both sizes.
#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <valgrind/callgrind.h>

#include "agent/output/output_json.h"
#include "agent/session/session.h"

namespace {

using vnagent::SourceEvent;

constexpr unsigned kSubjects = 15;

struct Shape {
  unsigned ports, hosts, networks, regions, waiting;
  bool toggle;
};

class Patches {
 public:
  explicit Patches(const Shape& shape)
      : shape_(shape), session_({.toggle = shape.toggle, .changes = true}, clock_) {
    take(SourceEvent::ofDocument(document()));
  }

  void count() {
    CALLGRIND_START_INSTRUMENTATION;
    // Subjects are spread over the cloud.
    for (unsigned i = 0; i < kSubjects; ++i) {
      const unsigned port = (7919 * i + 3) % shape_.ports;
      const unsigned host = port % shape_.hosts;
      const unsigned other = (host + 1) % shape_.hosts;
      const auto binding = [&](const std::string& inner) {
        return fmt::format(R"("portBinding": {{"p{}": {}}})", port, inner);
      };
      countOne("unbind a port", binding("null"));
      countOne("bind a port", binding(bound(port, host)));
      countOne("move a port to another host",
               binding(fmt::format(R"({{"portToHostBinding": {{"h{}": null, "h{}": {}}}}})", host,
                                   other, levels(port))));
      countOne("add a port", fmt::format(R"("port": {{"q{}": {{}}}})", i));
      countOne("heartbeat", fmt::format(R"("syncHeartbeat": {})", i));
      countOne("lock", fmt::format(R"("requester": "a", "requestId": "{}")", i));
      countOne("unlock", R"("requester": "", "requestId": "")");
      countOne("patch that is refused",
               binding(R"({"portToHostBinding": {"h": {"segment": )"
                       R"({"0": "none"}}}})"),
               false);
    }
    CALLGRIND_STOP_INSTRUMENTATION;
  }

 private:
  std::string levels(unsigned port) const {
    const unsigned network = port % shape_.networks;
    return fmt::format(R"({{"segment": {{"0": "x{}", "1": "v{}"}}}})", network, network);
  }
  std::string bound(unsigned port, unsigned host) const {
    return fmt::format(R"({{"portToHostBinding": {{"h{}": {}}}}})", host, levels(port));
  }

  std::string document() const {
    std::vector<std::string> segments, ports, bindings;
    for (unsigned i = 0; i < shape_.networks; ++i) {
      const auto segment = [&](char name, const char* type, unsigned id) {
        segments.push_back(fmt::format(
            R"("{}{}": {{"segmentationType": "{}", "segmentationId": {}}})", name, i, type, id));
      };
      segment('x', "vxlan", 10000 + i);
      segment('v', "vlan", 1 + i % 4000);
    }
    for (unsigned i = 0; i < shape_.ports; ++i) {
      ports.push_back(fmt::format(R"("p{}": {{}})", i));
      bindings.push_back(fmt::format(R"("p{}": {})", i, bound(i, i % shape_.hosts)));
    }
    std::string regions;
    for (unsigned i = 1; i < shape_.regions; ++i)
      regions += fmt::format(R"(, "other-{}": {{}})", i);
    return fmt::format(
        R"({{"region": {{"R": {{"segment": {{{}}}, "port": {{{}}}, "portBinding": {{{}}}}}{}}}}})",
        fmt::join(segments, ","), fmt::join(ports, ","), fmt::join(bindings, ","), regions);
  }

  void countOne(const char* name, const std::string& members, bool accepted = true) {
    const std::string line = fmt::format(R"({{"patch": {{"region": {{"R": {{{}}}}}}}}})", members);
    CALLGRIND_ZERO_STATS;
    const bool applied = take(SourceEvent::ofLine(line));
    CALLGRIND_DUMP_STATS_AT(name);
    if (applied != accepted) {
      std::cerr << name << ": " << (applied ? "applied" : "refused") << '\n';
      std::exit(1);
    }
  }

  bool take(SourceEvent event) {
    const auto outcome = session_.take(std::move(event));
    text_.clear();
    vnagent::JsonWriter json(text_, vnagent::JsonWriter::Style::kOneLine);
    writeOutput(outcome.output, json);
    return outcome.applied();
  }

  Shape shape_;
  vnagent::VirtualClock clock_;
  vnagent::Session session_;
  std::string text_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) {
    std::cerr << "patches PORTS HOSTS NETWORKS REGIONS WAITING on|off\n";
    return 2;
  }
  const auto number = [&](int i) { return static_cast<unsigned>(std::stoul(argv[i])); };
  Patches(
      {number(1), number(2), number(3), number(4), number(5), std::string_view(argv[6]) == "on"})
      .count();
}
