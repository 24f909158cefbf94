#include "agent/live/open_api.h"

#include <array>
#include <initializer_list>
#include <set>
#include <string>

#include "agent/json/json_writer.h"
#include "agent/live/exchange.h"

namespace vnagent {
namespace {

struct Parameter {
  std::string_view name;
  std::string_view in;    // "path", "query", "header"
  std::string_view type;  // of JSON Schema
  std::string_view about;
  bool isRequired = false;
};

constexpr Parameter kPlace{"place", "path", "string",
                           "Names that lead to a place, percent-encoded, one path segment each."};
constexpr Parameter kPath{"path", "path", "string", "Names that lead to a part of the machines."};
constexpr Parameter kName{"name", "path", "string", "The name of a region."};
constexpr Parameter kAt{"at", "query", "string", "The place as a JSON Pointer."};
constexpr Parameter kAtRegion{"at", "query", "string", "The region as a JSON Pointer.", true};
constexpr Parameter kAtMember{"at", "query", "string", "The member as a JSON Pointer.", true};
constexpr Parameter kDryRun{"dry-run", "query", "boolean", "Whether nothing is to be changed."};
constexpr Parameter kIfMatch{"If-Match", "header", "string", "ETags that the place may have."};
constexpr Parameter kIfNoneMatch{"If-None-Match", "header", "string",
                                 "ETags that the place may not have."};
constexpr Parameter kSyncId{"Sync-Request-Id", "header", "string",
                            "The request id that holds the lock."};
constexpr Parameter kKey{"Idempotency-Key", "header", "string",
                         "1 to 64 characters; a repeated request is answered as the first was."};
constexpr Parameter kWait{"wait", "query", "integer", "Waits for this revision."};
constexpr Parameter kTimeout{"timeout", "query", "number", "How long, 0 to 300 s; else 30."};
constexpr Parameter kOf{"of", "query", "string", "output, or cloud."};
constexpr Parameter kSince{"since", "query", "string", "The id of the last event that was seen."};
constexpr Parameter kLastEvent{"Last-Event-ID", "header", "string", "Stands for since."};
constexpr Parameter kForce{"force", "query", "boolean", "Whoever holds it; administrators only."};

struct Operation {
  std::string_view path;
  std::string_view method;
  std::string_view summary;
  std::initializer_list<Parameter> parameters;
  std::string_view takes;  // media type of the body; empty: none
  std::string_view gives;  // of the reply
  std::initializer_list<unsigned> statuses;
};

constexpr std::string_view kEvents = "text/event-stream";
constexpr std::string_view kText = "text/plain";

// What every request may be answered, besides what its row says: that of HTTP itself, of the
// connection, and of an agent that stops. A probe asks for no credentials and takes no media type.
constexpr std::array kOfProbes{400U, 408U, 413U, 429U, 431U, 503U};
constexpr std::array kOfAll{400U, 401U, 406U, 408U, 413U, 429U, 431U, 503U};

// HEAD is answered as GET is, without the body; it is not in the rows.
const std::initializer_list<Operation>& operations() {
  static const std::initializer_list<Operation> kOperations{
      {"/v1", "get", "Who is there", {}, "", kJsonType, {200}},
      {"/v1/cloud",
       "get",
       "The cloud document, or a place of it",
       {kAt, kIfMatch, kIfNoneMatch},
       "",
       kJsonType,
       {200, 304, 404, 412}},
      {"/v1/cloud",
       "patch",
       "Merges a patch into the document, or at a place of it",
       {kAt, kDryRun, kIfMatch, kIfNoneMatch, kSyncId, kKey},
       kMergePatchType,
       kJsonType,
       {200, 403, 409, 412, 415, 422, 428, 507}},
      {"/v1/cloud",
       "put",
       "Lets the region that `at` names be exactly the body",
       {kAtRegion, kDryRun, kIfMatch, kIfNoneMatch, kSyncId, kKey},
       kJsonType,
       kJsonType,
       {200, 201, 403, 405, 409, 412, 415, 422, 428, 507}},
      {"/v1/cloud",
       "delete",
       "Takes out the member that `at` names",
       {kAtMember, kDryRun, kIfMatch, kIfNoneMatch, kSyncId, kKey},
       "",
       kJsonType,
       {200, 403, 404, 405, 409, 412, 422, 428, 507}},
      {"/v1/cloud/{place}",
       "get",
       "A place of the cloud document",
       {kPlace, kIfMatch, kIfNoneMatch},
       "",
       kJsonType,
       {200, 304, 404, 412}},
      {"/v1/cloud/{place}",
       "patch",
       "Merges a patch at a place",
       {kPlace, kDryRun, kIfMatch, kIfNoneMatch, kSyncId, kKey},
       kMergePatchType,
       kJsonType,
       {200, 403, 404, 409, 412, 415, 422, 428, 507}},
      {"/v1/cloud/{place}",
       "delete",
       "Takes a member out",
       {kPlace, kDryRun, kIfMatch, kIfNoneMatch, kSyncId, kKey},
       "",
       kJsonType,
       {200, 403, 404, 409, 412, 422, 428, 507}},
      {"/v1/cloud/region/{name}",
       "put",
       "Lets a region be exactly the body",
       {kName, kDryRun, kIfMatch, kIfNoneMatch, kSyncId, kKey},
       kJsonType,
       kJsonType,
       {200, 201, 403, 409, 412, 415, 422, 428, 507}},
      {"/v1/output",
       "get",
       "The output document, or a place of it",
       {kAt, kWait, kTimeout, kIfMatch, kIfNoneMatch},
       "",
       kJsonType,
       {200, 304, 404, 412, 504}},
      {"/v1/output/{place}",
       "get",
       "A place of the output document",
       {kPlace, kWait, kTimeout, kIfMatch, kIfNoneMatch},
       "",
       kJsonType,
       {200, 304, 404, 412, 504}},
      {"/v1/batch",
       "post",
       "Patches on the whole document, each by itself",
       {kDryRun, kSyncId, kKey},
       kJsonType,
       kJsonType,
       {200, 403, 415, 422, 507}},
      {"/v1/region/{name}/sync",
       "get",
       "The sync status of a region",
       {kName},
       "",
       kJsonType,
       {200, 404}},
      {"/v1/region/{name}/sync/lock",
       "post",
       "Asks for the lock of a region",
       {kName, kKey},
       kJsonType,
       kJsonType,
       {200, 403, 404, 409, 415, 422, 507}},
      {"/v1/region/{name}/sync/lock",
       "delete",
       "Gives the lock back",
       {kName, kForce, kSyncId, kKey},
       "",
       kJsonType,
       {200, 403, 404, 409, 415, 422, 428, 507}},
      {"/v1/region/{name}/sync/start",
       "post",
       "Starts a sync",
       {kName, kSyncId, kKey},
       "",
       kJsonType,
       {200, 403, 404, 409, 415, 422, 428, 507}},
      {"/v1/region/{name}/sync/heartbeat",
       "post",
       "Says that the sync goes on",
       {kName, kSyncId, kKey},
       "",
       kJsonType,
       {200, 403, 404, 409, 415, 422, 428, 507}},
      {"/v1/region/{name}/sync/complete",
       "post",
       "Completes a sync",
       {kName, kSyncId, kKey},
       "",
       kJsonType,
       {200, 403, 404, 409, 415, 422, 428, 507}},
      {"/v1/watch",
       "get",
       "A document and its changes, as Server-Sent Events",
       {kOf, kAt, kSince, kLastEvent},
       "",
       kEvents,
       {200, 410}},
      {"/v1/inspect", "get", "The root machine", {}, "", kJsonType, {200, 403}},
      {"/v1/inspect/{path}",
       "get",
       "A part of the machines",
       {kPath},
       "",
       kJsonType,
       {200, 403, 404}},
      {"/v1/trace", "get", "The trace level", {}, "", kJsonType, {200, 403}},
      {"/v1/trace", "put", "Sets the trace level", {}, kJsonType, kJsonType, {200, 403, 415}},
      {"/v1/trace/tail", "get", "Trace lines, as Server-Sent Events", {}, "", kEvents, {200, 403}},
      {"/healthz", "get", "Whether the process answers", {}, "", kText, {200}},
      {"/readyz", "get", "Whether it is restored, and changes can be stored", {}, "", kText, {200}},
      {"/metrics", "get", "Figures for Prometheus", {}, "", kText, {200, 403}},
      {"/openapi.json", "get", "This document", {}, "", kJsonType, {200}},
  };
  return kOperations;
}

void writeParameter(const Parameter& parameter, JsonWriter& json) {
  json.open('{').key("name").text(parameter.name).key("in").text(parameter.in);
  if (parameter.in == "path" || parameter.isRequired) json.key("required").boolean(true);
  json.key("description").text(parameter.about);
  json.key("schema").open('{').key("type").text(parameter.type).close('}').close('}');
}

void writeContent(std::string_view type, JsonWriter& json) {
  json.key("content").open('{').key(type).open('{').close('}').close('}');
}

void writeOperation(const Operation& operation, std::string_view method, JsonWriter& json) {
  const bool isProbe = operation.path == "/healthz" || operation.path == "/readyz";
  json.key(method).open('{').key("summary").text(operation.summary);
  if (operation.parameters.size() > 0) {
    json.key("parameters").open('[');
    for (const Parameter& parameter : operation.parameters) writeParameter(parameter, json);
    json.close(']');
  }
  if (!operation.takes.empty()) {
    json.key("requestBody").open('{').key("required").boolean(true);
    writeContent(operation.takes, json);
    json.close('}');
  }
  const bool hasContent = method != "head";
  json.key("responses").open('{');
  const auto write = [&](unsigned status) {
    json.key(std::to_string(status)).open('{');
    const bool succeeds = status < 300;
    json.key("description").text(status == 304 ? "Not modified" : succeeds ? "Done" : "Refused");
    if (status != 304 && hasContent) {
      writeContent(succeeds ? operation.gives : "application/problem+json", json);
    }
    json.close('}');
  };
  std::set<unsigned> statuses(operation.statuses);
  if (isProbe) {
    statuses.insert(kOfProbes.begin(), kOfProbes.end());
  } else {
    statuses.insert(kOfAll.begin(), kOfAll.end());
  }
  for (const unsigned status : statuses) write(status);
  json.close('}').close('}');
}

std::string made() {
  std::string text;
  JsonWriter json(text, JsonWriter::Style::kOneLine);
  json.open('{').key("openapi").text("3.0.3").key("info").open('{');
  json.key("title").text("vnagent").key("version").text("1").close('}');
  json.key("paths").open('{');
  std::string_view path;
  for (const Operation& operation : operations()) {
    if (operation.path != path) {
      if (!path.empty()) json.close('}');
      path = operation.path;
      json.key(path).open('{');
    }
    writeOperation(operation, operation.method, json);
    const bool isStream = operation.gives == kEvents;
    if (operation.method == "get" && !isStream) writeOperation(operation, "head", json);
  }
  json.close('}').close('}').close('}');
  return text;
}

}  // namespace

std::string_view openApi() {
  static const std::string kDocument = made();
  return kDocument;
}

}  // namespace vnagent
