#include "agent/export/output_source.h"

#include <chrono>
#include <iterator>
#include <thread>

namespace vnagent {
namespace {

using Kind = OutputEvent::Kind;
using simdjson::dom::element;

constexpr auto kPause = std::chrono::milliseconds(500);
constexpr unsigned kGone = 410;

std::string notJson(const std::string& what, simdjson::error_code error) {
  return what + " is not JSON: " + simdjson::error_message(error);
}

// The data lives as long as the parser.
OutputEvent eventOf(const LiveEvent& event, simdjson::dom::parser& parser) {
  const std::string revision = event.id.substr(0, event.id.find('-'));
  const bool isDocument = event.name == "snapshot";
  if (!isDocument && event.name != "patch") return {Kind::kBookmark, {}, revision};
  element data;
  if (const auto error = parser.parse(event.data).get(data)) {
    return {Kind::kFault, {}, revision, notJson("the output of revision " + revision, error)};
  }
  return {isDocument ? Kind::kDocument : Kind::kPatch, data, revision};
}

// The document or patch that a line of a file holds.
OutputEvent eventOfLine(element line, uint64_t number) {
  const std::string id = std::to_string(number);
  if (!line.is_object()) return {Kind::kFault, {}, id, "line " + id + " is no JSON object"};
  element data;
  if (line["step"].get(data)) return {Kind::kDocument, line, id};
  if (!line["output"].get(data)) return {Kind::kDocument, data, id};
  if (!line["change"].get(data)) return {Kind::kPatch, data, id};
  return {Kind::kBookmark, {}, id};  // a refused event
}

}  // namespace

void followAgent(const LiveAgent& agent, const DeliverOutput& deliver) {
  std::string last;
  bool isWanted = true;
  while (isWanted) {
    std::string fault;
    try {
      // One connection at a time, so that each failure is seen.
      agent.follow({.target = "/v1/watch?of=output", .since = last, .patience = 0},
                   [&](const LiveEvent& event) {
                     if (!event.id.empty()) last = event.id;
                     simdjson::dom::parser parser;
                     isWanted = deliver(eventOf(event, parser));
                     return isWanted;
                   });
    } catch (const RequestRefused& refused) {
      fault = refused.what();
      if (refused.status() == kGone) {
        last.clear();
        continue;
      }
    } catch (const Unreachable& error) {
      fault = error.what();
    }
    if (!isWanted) return;
    if (!deliver({Kind::kLost, {}, {}, fault})) return;
    std::this_thread::sleep_for(kPause);
  }
}

void readOutputs(std::istream& in, const DeliverOutput& deliver) {
  std::string text;
  for (uint64_t number = 1; std::getline(in, text); ++number) {
    if (text.find_first_not_of(" \t\r") == text.npos) continue;
    simdjson::dom::parser parser;
    element line;
    auto error = parser.parse(text).get(line);
    if (error && number == 1) {
      // Not a line by itself: the file is one document.
      text += '\n';
      text.append(std::istreambuf_iterator<char>(in), {});
      error = parser.parse(text).get(line);
    }
    if (error) {
      deliver({Kind::kFault, {}, {}, notJson("line " + std::to_string(number), error)});
      return;
    }
    const OutputEvent event = eventOfLine(line, number);
    if (!deliver(event) || event.kind == Kind::kFault) return;
  }
  deliver({Kind::kEnd});
}

}  // namespace vnagent
