#include "agent/export/output_source.h"

#include <chrono>
#include <iterator>
#include <thread>

#include "agent/export/output_reader.h"

namespace vnagent {
namespace {

using Kind = OutputEvent::Kind;
using nlohmann::json;

constexpr auto kPause = std::chrono::milliseconds(500);
constexpr unsigned kGone = 410;

OutputEvent eventOf(LiveEvent event) {
  const std::string revision = event.id.substr(0, event.id.find('-'));
  if (event.name == "snapshot") return {Kind::kDocument, std::move(event.data), revision};
  if (event.name == "patch") return {Kind::kPatch, std::move(event.data), revision};
  return {Kind::kBookmark, {}, revision};
}

// The document or patch that a line of a file holds.
OutputEvent eventOfLine(json line, uint64_t number) {
  const std::string id = std::to_string(number);
  if (!line.is_object()) return {Kind::kFault, {}, id, "line " + id + " is no JSON object"};
  if (!line.contains("step")) return {Kind::kDocument, std::move(line), id};
  if (line.contains("output")) return {Kind::kDocument, std::move(line["output"]), id};
  if (line.contains("change")) return {Kind::kPatch, std::move(line["change"]), id};
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
      agent.follow(
          {.target = "/v1/watch?of=output", .since = last, .patience = 0, .parse = readOutput},
          [&](LiveEvent event) {
            if (!event.id.empty()) last = event.id;
            isWanted = deliver(eventOf(std::move(event)));
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
    json line = readOutput(text);
    if (line.is_discarded() && number == 1) {
      // Not a line by itself: the file is one document.
      text += '\n';
      text.append(std::istreambuf_iterator<char>(in), {});
      line = readOutput(text);
    }
    if (line.is_discarded()) {
      deliver({Kind::kFault, {}, {}, "line " + std::to_string(number) + " is not JSON"});
      return;
    }
    OutputEvent event = eventOfLine(std::move(line), number);
    const bool isFault = event.kind == Kind::kFault;
    if (!deliver(std::move(event)) || isFault) return;
  }
  deliver({Kind::kEnd});
}

}  // namespace vnagent
