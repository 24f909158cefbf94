// vnagent patch, replace, diff and apply: changes of the live cloud.
#include <algorithm>
#include <array>

#include <fmt/format.h>

#include "agent/cli/client_support.h"
#include "agent/cli/input_file.h"

namespace vnagent {
namespace {

// What the driver of a region writes; a document that does not name them leaves them alone.
constexpr std::array kSyncScalars{"requester", "requestId", "syncInterval", "syncHeartbeat",
                                  "syncStatus"};

Json parsed(const HttpResponse& response) {
  return Json::parse(response.body, nullptr, false);
}

std::string withDryRun(std::string target, bool isDryRun) {
  if (!isDryRun) return target;
  target += target.find('?') == target.npos ? "?dry-run=true" : "&dry-run=true";
  return target;
}

void addHeader(HttpHeaders& headers, const char* name, const std::string& value) {
  if (!value.empty()) headers.emplace_back(name, value);
}

// Prints the answer to a change: the revision, or what a dry run says would come out.
void printAnswer(const LiveAgent& agent, const Json& answer, bool isDryRun, bool json) {
  if (json) {
    printJson(answer, true);
  } else if (isDryRun) {
    printChanges(agent.read("/v1/output").value, memberOf(answer, "output"));
  } else {
    const Json& changed = memberOf(answer, "changed");
    printOut(fmt::format("revision {}{}\n", textOf(memberOf(answer, "revision")),
                         changed.is_null() ? "" : fmt::format(", {} changed", changed.dump())));
  }
}

// The patch that makes the regions of the live cloud those of a file, member by member. A region
// that the file does not have stays, and so do the scalars of the sync protocol that it does not
// name. The configuration is merged.
Json patchTowards(const Json& live, const Json& wanted) {
  Json target = live;
  if (const Json& config = memberOf(wanted, "config"); config.is_object()) {
    Json& merged = target["config"];
    merged.merge_patch(config);
  }
  for (const auto& [name, region] : memberOf(wanted, "region").items()) {
    Json after = region;
    for (const char* scalar : kSyncScalars) {
      const Json& present = memberOf(memberOf(memberOf(live, "region"), name), scalar);
      if (!present.is_null() && !after.contains(scalar)) after[scalar] = present;
    }
    target["region"][name] = std::move(after);
  }
  return differenceOf(live, target);
}

// Members with their default are not printed by the agent: an empty collection of a file is none.
Json withoutEmptyCollections(Json document) {
  for (auto& [name, region] : document["region"].items()) {
    if (!region.is_object()) continue;
    for (auto member = region.begin(); member != region.end();) {
      const bool isEmpty = member->is_object() && member->empty();
      member = isEmpty ? region.erase(member) : std::next(member);
    }
  }
  return document;
}

Json readCloud(const std::string& file) {
  Json document = readJson(file);
  const bool isCloud = document.is_object() &&
                       (memberOf(document, "region").is_object() || !document.contains("region"));
  if (!isCloud) throw UnreadableFile(inputName(file) + ": is no cloud document");
  return withoutEmptyCollections(std::move(document));
}

}  // namespace

ExitStatus patch(const PatchOptions& options) {
  const LiveAgent agent = connected(options);
  const Place place = placeOf(options.at);
  if (place.document != "cloud") throw RejectedArgument("only the cloud can be changed");
  HttpHeaders headers;
  if (!options.ifMatch.empty()) addHeader(headers, "If-Match", '"' + options.ifMatch + '"');
  addHeader(headers, "Sync-Request-Id", options.requestId);
  addHeader(headers, "Idempotency-Key", options.key);
  // The text goes as it is, so that the agent checks every byte of it.
  const std::string body = readFile(options.file);
  if (body.empty()) throw UnreadableFile(inputName(options.file) + ": is empty");
  const auto response =
      agent.request("PATCH", withDryRun(placeTarget("cloud", place.pointer), options.dryRun), body,
                    std::move(headers));
  printAnswer(agent, parsed(response), options.dryRun, options.json);
  return ExitStatus::kOk;
}

ExitStatus replace(const ReplaceOptions& options) {
  const LiveAgent agent = connected(options);
  HttpHeaders headers;
  addHeader(headers, "Sync-Request-Id", options.requestId);
  const std::string target = placeTarget("cloud", withKey("/region", options.region));
  const std::string body = readFile(options.file);
  if (body.empty()) throw UnreadableFile(inputName(options.file) + ": is empty");
  const auto response =
      agent.request("PUT", withDryRun(target, options.dryRun), body, std::move(headers));
  printAnswer(agent, parsed(response), options.dryRun, options.json);
  return ExitStatus::kOk;
}

ExitStatus diff(const ApplyOptions& options) {
  const Json wanted = readCloud(options.file);
  const Json live = connected(options).read("/v1/cloud").value;
  const Json patch = patchTowards(live, wanted);
  if (options.json) {
    printJson(patch, true);
  } else {
    printChanges(live, patch);
  }
  return patch.empty() ? ExitStatus::kOk : ExitStatus::kNotYet;
}

ExitStatus apply(const ApplyOptions& options) {
  const Json wanted = readCloud(options.file);
  const LiveAgent agent = connected(options);
  const Reading live = agent.read("/v1/cloud");
  const Json patch = patchTowards(live.value, wanted);
  // What was compared is what is changed.
  HttpHeaders headers{{"If-Match", live.etag}};
  addHeader(headers, "Sync-Request-Id", options.requestId);
  if (patch.empty() && !options.dryRun) {
    if (options.json) {
      printJson({{"revision", memberOf(agent.read("/v1").value, "revision")}}, true);
    } else {
      printOut("no changes\n");
    }
    return ExitStatus::kOk;
  }
  const auto response = agent.request("PATCH", withDryRun("/v1/cloud", options.dryRun),
                                      patch.dump(), std::move(headers));
  if (!options.json) printChanges(live.value, patch);
  if (options.dryRun && !options.json) printOut("what would come out:\n");
  printAnswer(agent, parsed(response), options.dryRun, options.json);
  return ExitStatus::kOk;
}

}  // namespace vnagent
