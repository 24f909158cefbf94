#include "agent/live/exchange.h"

#include <algorithm>

#include "agent/json/json_writer.h"

namespace vnagent {

const std::string* Request::header(std::string_view name) const {
  const auto found =
      std::ranges::find_if(headers, [&](const auto& header) { return header.first == name; });
  return found == headers.end() ? nullptr : &found->second;
}

size_t Request::headerCount(std::string_view name) const {
  return static_cast<size_t>(
      std::ranges::count_if(headers, [&](const auto& header) { return header.first == name; }));
}

Reply problemReply(const Problem& problem) {
  auto body = std::make_shared<std::string>();
  JsonWriter json(*body, JsonWriter::Style::kOneLine);
  json.open('{').key("type").text("/problems/" + std::string(problem.name));
  json.key("title").text(problem.title);
  json.key("status").number(uint64_t{problem.status});
  json.key("detail").text(problem.detail);
  json.close('}');
  Reply reply;
  reply.status = problem.status;
  reply.headers = {{"content-type", "application/problem+json"}};
  reply.body = std::move(body);
  return reply;
}

}  // namespace vnagent
