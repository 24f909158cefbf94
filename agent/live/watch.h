// A watch of a document: its snapshot, then what changes, as Server-Sent Events.
//
// A watch holds its position, a revision, and no events: what has changed since is taken from the
// history when the connection asks for more. So a slow reader costs nothing, and gets fewer and
// larger patches. Activity thread only.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/live/exchange.h"
#include "agent/live/live_cloud.h"

namespace vnagent {

struct WatchSettings {
  Document document = Document::kOutput;
  std::vector<Place> places;      // none: the whole document
  std::optional<uint64_t> since;  // nothing: starts with a snapshot
  Principal principal;
};

class Watches;

class Watch final : public EventStream {
 public:
  // REQUIRES: `since` is a revision of the history. The watches outlive it. Throws StorageError
  // where what has changed since cannot be read.
  Watch(Watches& watches, WatchSettings settings);
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch() override;

  std::shared_ptr<const std::string> next() override;
  bool ended() const override;

  // Something became durable, time has passed, or the end has come: there may be more.
  void wake();
  // When it sends a bookmark if nothing changes before.
  double bookmarkTime() const;
  uint64_t position() const { return position_; }

 private:
  using Bytes = std::shared_ptr<const std::string>;

  void start();
  void resume();
  // The cloud went back: what was to be shown next may never have been.
  void goneBack();
  bool isRestricted() const { return settings_.principal.isRestricted(); }

  Bytes nextEvent();
  Bytes nextPatch();
  Bytes nextPatchOfPlaces();
  Bytes nextPatchOfView();
  Bytes event(std::string_view name, uint64_t revision, std::string_view data) const;

  // The value of one place now, as the principal sees it.
  std::optional<std::string> read(const Place& place) const;
  // The document with the places only; notes which of them exist.
  Json readPlaces();
  // Likewise, as it was at a revision of the history; of a principal of some regions.
  Json readPlacesAt(uint64_t revision);

  friend class Watches;

  Watches& watches_;
  const uint64_t number_;
  WatchSettings settings_;
  uint64_t position_ = 0;     // the revision that was sent
  Bytes snapshot_;            // of position_, until it is sent
  std::vector<bool> exists_;  // of the places, at position_
  // Of a principal of some regions, whose view is compared with the one that was sent.
  Json sent_;
  std::optional<std::pair<uint64_t, Json>> waiting_;  // to be sent next, when it is durable
  double lastSent_ = 0;
  bool isCut_ = false;  // what it has to send next is not kept any more, or cannot be read
  bool asked_ = false;  // next() had nothing, and the connection waits for a call
};

// All watches, and what they read from.
class Watches {
 public:
  // A watch that was sent nothing for so long is sent a bookmark, at the next look at all of them.
  static constexpr double kBookmarkSeconds = 10;
  static constexpr double kLookSeconds = 2;

  explicit Watches(LiveCloud& cloud) : cloud_(cloud) {}

  // The last revision that may be shown.
  uint64_t visible() const { return visible_; }
  void visibleIs(uint64_t revision);

  // When to look for bookmarks that are due; +infinity when there is no watch.
  double nextTimer() const;
  void turn();

  // The cloud went back to the visible revision.
  void goneBack();
  // No watch gets more, and all end.
  void end();

  size_t count() const { return all_.size(); }
  // The most revisions that one of them is behind.
  uint64_t largestLag() const;

 private:
  friend class Watch;

  // An event that several watches are sent.
  struct Shared {
    Document document;
    uint64_t from;
    uint64_t to;
    std::shared_ptr<const std::string> event;  // null: nothing differs
  };
  // How far an event goes that begins after this revision.
  uint64_t portionEnd(Document document, uint64_t from) const;
  std::shared_ptr<const std::string> patchEvent(Document document, uint64_t from, uint64_t to);
  std::shared_ptr<const std::string> snapshotEvent(Document document);
  void wakeAll();

  LiveCloud& cloud_;
  std::map<uint64_t, Watch*> all_;  // in the order in which they came
  uint64_t lastNumber_ = 0;
  uint64_t visible_ = 0;
  double nextLook_ = 0;
  bool ended_ = false;
  std::deque<Shared> shared_;
  // The snapshots of both documents that watches still hold.
  std::array<std::pair<uint64_t, std::weak_ptr<const std::string>>, 2> snapshots_;
};

}  // namespace vnagent
