// What a service answers without changing anything: documents, machines, traces, watches.
#include <utility>

#include "agent/json/json_writer.h"
#include "agent/live/detail/service_impl.h"
#include "agent/live/view.h"
#include "agent/output/inspection.h"

namespace vnagent {

void Service::Impl::answerAgent(const Exchange& exchange) {
  std::string text;
  JsonWriter json(text, JsonWriter::Style::kOneLine);
  json.open('{').key("name").text("vnagent").key("version").text(settings_.version);
  json.key("api").number(uint64_t{1}).key("instance").text(instance_);
  json.key("revision").number(cloud_.revision());
  json.key("check").text(cloud_.history().check(cloud_.revision()));
  json.key("uptime").number(cloud_.time() - started_);
  json.key("durable").boolean(storage_ != nullptr).key("toggle").boolean(settings_.toggle);
  json.key("requireLock").boolean(settings_.requireLock);
  json.key("principal").text(exchange.principal().name);
  json.key("role").text(exchange.principal().roleText());
  json.close('}');
  answer(exchange, jsonReply(std::move(text)));
}

void Service::Impl::answerRead(Exchange exchange) {
  const auto& wait = exchange.parameters.wait;
  if (wait && watches_.visible() < *wait) {
    const double deadline = cloud_.time() + exchange.parameters.timeout;
    if (exchange.parameters.timeout <= 0) {
      return refuse(exchange, {"not-yet", "the agent is not at the revision yet"});
    }
    reads_.push_back({std::move(exchange), deadline});
    return;
  }
  const bool isCloud = exchange.route.subject == Subject::kCloud;
  const Place& place = exchange.route.place;
  auto text = isCloud ? readCloudAs(cloud_.document(), place, exchange.principal())
                      : readOutputAs(cloud_.session(), place, exchange.principal());
  if (!text) return refuse(exchange, {"not-found", "there is nothing at this place"});
  const uint64_t etag = isCloud && place.size() >= 2 ? cloud_.etags().of(place) : cloud_.revision();
  if (auto refusal = exchange.conditions.refuseRead(etag)) return refuse(exchange, *refusal);
  Reply reply;
  if (exchange.conditions.isNotModified(etag)) {
    reply.status = 304;
  } else {
    reply = jsonReply(std::move(*text));
  }
  reply.headers.emplace_back("etag", etagText(etag));
  reply.headers.emplace_back("vnagent-revision", std::to_string(cloud_.revision()));
  answer(exchange, std::move(reply));
}

void Service::Impl::answerInspection(const Exchange& exchange) {
  const Place path = exchange.route.place.empty() ? Place{"openStackSm"} : exchange.route.place;
  std::string text;
  JsonWriter json(text, JsonWriter::Style::kIndented);
  if (const auto fault =
          writeInspection(cloud_.session().root(), "openStackSm", pointerOf(path), json)) {
    return refuse(exchange, {"not-found", *fault});
  }
  text += '\n';
  answer(exchange, jsonReply(std::move(text)));
}

void Service::Impl::answerTrace(const Exchange& exchange) {
  if (!exchange.reads()) {
    const JsonValue& body = exchange.body->root();
    const JsonValue* level = body.isObject() && body.size == 1 ? body.find("level") : nullptr;
    if (level == nullptr || level->kind != JsonValue::Kind::kInteger || level->integer < 0 ||
        level->integer > 9) {
      return refuse(exchange, {"bad-request", "the body is {\"level\": N}, N being 0 to 9"});
    }
    TraceTails::levelIs(static_cast<int>(level->integer));
  }
  answer(exchange, jsonReply("{\"level\": " + std::to_string(TraceTails::level()) + '}'));
}

std::optional<Refusal> Service::Impl::readSince(const Exchange& exchange,
                                                std::optional<uint64_t>& since) const {
  if (!exchange.parameters.since) return std::nullopt;
  const std::string& text = *exchange.parameters.since;
  const size_t dash = text.find('-');
  const std::string digits = text.substr(0, dash);
  const std::string check = dash == text.npos ? "" : text.substr(dash + 1);
  const bool isId =
      !digits.empty() && digits.size() < 20 &&
      digits.find_first_not_of("0123456789") == digits.npos &&
      (dash == text.npos || (check.size() == kFirstCheck.size() &&
                             check.find_first_not_of("0123456789abcdef") == check.npos));
  if (!isId) return Refusal{"bad-request", "since is the id of an event"};
  const uint64_t revision = std::stoull(digits);
  if (revision > watches_.visible()) {
    return Refusal{
        "behind", "the agent is at an earlier revision", {}, false, {}, {{"retry-after", "1"}}};
  }
  const History& history = cloud_.history();
  const bool isKept = revision >= history.first();
  const bool isSame = isKept && (dash == text.npos || check == history.check(revision));
  if (!isSame) return Refusal{"gone", "the revision cannot be resumed from"};
  since = revision;
  return std::nullopt;
}

void Service::Impl::answerWatch(const Exchange& exchange) {
  WatchSettings settings;
  settings.document = exchange.parameters.ofCloud ? Document::kCloud : Document::kOutput;
  settings.places = exchange.parameters.at;
  settings.principal = exchange.principal();
  if (auto refusal = readSince(exchange, settings.since)) return refuse(exchange, *refusal);
  Reply reply;
  reply.headers = {{"content-type", "text/event-stream"}, {"cache-control", "no-store"}};
  try {
    reply.stream = std::make_unique<Watch>(watches_, std::move(settings));
  } catch (const StorageError& error) {
    return refuse(exchange,
                  {"not-ready", std::string("the history cannot be read: ") + error.what()});
  }
  // The stream shows nothing that is not durable, so that it may begin at once.
  deliver(exchange.ticket, std::move(reply));
}

}  // namespace vnagent
