// What the commands that talk to a live agent share.
#pragma once

#include <string>
#include <string_view>

#include "agent/cli/client_commands.h"
#include "agent/client/live_agent.h"
#include "agent/client/table.h"

namespace vnagent {

// The agent that the options name. Throws UnreadableFile for the token file.
LiveAgent connected(const ClientOptions& options);

// "cloud/region/R" as document and JSON Pointer, "cloud" and "/region/R". A place without its
// document is one of the cloud: "/region/R". Throws RejectedArgument.
struct Place {
  std::string document;
  std::string pointer;
};
Place placeOf(std::string_view text);

// An argument that cannot be used, found after the command line was parsed.
class RejectedArgument : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The JSON of a file or of standard input. Throws UnreadableFile.
Json readJson(const std::string& file);

// Prints JSON: on one line, or indented for people.
void printJson(const Json& value, bool oneLine);

void printTable(const Table& table);

// Prints the changes that a merge patch makes, one line for each place; "no changes" for none.
void printChanges(const Json& before, const Json& patch);

// A member of an object; null where there is none.
const Json& memberOf(const Json& object, std::string_view key);
std::string textOf(const Json& value);

}  // namespace vnagent
