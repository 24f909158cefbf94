// Changes of the cloud document by request: patches, replacements, deletions, batches.
//
// Each check is made in the order in which a request is refused. Activity thread only.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/json/json_tree.h"
#include "agent/live/conditions.h"
#include "agent/live/exchange.h"
#include "agent/live/live_cloud.h"
#include "agent/live/problem.h"
#include "agent/live/route.h"

namespace vnagent {

// One request to change the document.
struct ChangeRequest {
  const Request& request;
  const Route& route;
  const Conditions& conditions;
  const std::optional<JsonTree>& body;  // where it has one

  const Principal& principal() const { return *request.principal; }
};

// The reply to a change, and what it did.
struct ChangeReply {
  unsigned status = 200;
  std::string body = {};                  // of a change that was not refused
  std::optional<Refusal> refusal = {};    // of one that was
  std::vector<std::string> regions = {};  // whose status in the output has changed
  bool isRemembered = false;              // with a record, as `complete` was called
  std::vector<std::string> results = {};  // of a batch: each element's
  std::vector<std::string> refused = {};  // of a batch: the problem type of each refused element
};

class Changes {
 public:
  Changes(LiveCloud& cloud, bool requireLock) : cloud_(cloud), requireLock_(requireLock) {}

  // What may be checked without the body: whose regions the path names, the media type.
  static std::optional<Refusal> checkRole(const Request& request, const Route& route);
  // Reads the body, and checks whose regions it names.
  static std::optional<Refusal> readBody(const Request& request, const Route& route,
                                         std::optional<JsonTree>& body);

  // Makes the change. `remember` fills in the record with the reply's status and body.
  using Remember = std::function<void(Record& record, unsigned status, const std::string& body)>;
  ChangeReply make(const ChangeRequest& change, const Remember& remember);

  // The holder of a region's lock; nothing where nobody has it.
  std::optional<LockHolder> holderOf(std::string_view region) const;

 private:
  // What a change touches.
  struct Touched {
    std::vector<std::string> regions;
    bool all = false;     // every region
    bool config = false;  // the configuration
  };
  static Touched touchedBy(const JsonValue* patch, const Place& place);
  static bool mayTouch(const Principal& principal, const Touched& touched);

  std::optional<Refusal> checkPlace(const ChangeRequest& change) const;
  std::optional<Refusal> checkLock(const Request& request, const Touched& touched) const;
  ChangeReply replace(const ChangeRequest& change, const Remember& remember);
  ChangeReply makeEach(const ChangeRequest& change, const Remember& remember);
  // `tree` is the patch as a tree, or null.
  ChangeReply apply(const ChangeRequest& change, std::string patch, const JsonValue* tree,
                    const Remember& remember,
                    const std::function<std::pair<unsigned, std::string>(uint64_t)>& reply);

  LiveCloud& cloud_;
  bool requireLock_;
};

// Why a patch was refused, as the principal may see it.
Refusal refusalOf(std::vector<Fault> faults, const Principal& principal);

}  // namespace vnagent
