#include "agent/live/watch.h"

#include <algorithm>
#include <limits>

#include "agent/json/json_writer.h"
#include "agent/live/view.h"
#include "agent/output/output_json.h"

namespace vnagent {
namespace {

// Watches that are about as far as each other share what they are sent.
constexpr size_t kSharedEvents = 16;

std::shared_ptr<const std::string> eventText(std::string_view name, uint64_t revision,
                                             std::string_view check, std::string_view data) {
  auto text = std::make_shared<std::string>("id: " + std::to_string(revision) + '-');
  text->reserve(text->size() + check.size() + name.size() + data.size() + 20);
  *text += check;
  *text += "\nevent: ";
  *text += name;
  *text += "\ndata: ";
  *text += data;
  *text += "\n\n";
  return text;
}

Json& valueAt(Json& root, const Place& place) {
  Json* at = &root;
  for (const std::string& name : place) at = &(*at)[name];
  return *at;
}

// Notes in a patch that a place is gone: at the highest level at which nothing is left.
void removeAt(Json& patch, const Place& place, const std::vector<Place>& places,
              const std::vector<bool>& exists) {
  const auto hasOne = [&](const Place& prefix) {
    for (size_t i = 0; i < places.size(); ++i) {
      if (exists[i] && isWithin(places[i], prefix)) return true;
    }
    return false;
  };
  Place prefix;
  for (const std::string& name : place) {
    prefix.push_back(name);
    if (!hasOne(prefix)) break;
  }
  valueAt(patch, prefix) = nullptr;
}

}  // namespace

Watch::Watch(Watches& watches, WatchSettings settings)
    : watches_(watches), number_(++watches.lastNumber_), settings_(std::move(settings)) {
  auto& places = settings_.places;
  std::ranges::sort(places);
  places.erase(std::unique(places.begin(), places.end()), places.end());
  // What is below another place is in it already; the root stands for the whole document.
  const std::vector<Place> all = places;
  std::erase_if(places, [&](const Place& place) {
    return std::ranges::any_of(
        all, [&](const Place& outer) { return outer != place && isWithin(place, outer); });
  });
  if (!places.empty() && places.front().empty()) places.clear();
  lastSent_ = watches_.cloud_.time();
  if (settings_.since) {
    resume();
  } else {
    start();
  }
  watches_.all_.emplace(number_, this);
}

Watch::~Watch() {
  watches_.all_.erase(number_);
}

void Watch::start() {
  const LiveCloud& cloud = watches_.cloud_;
  position_ = cloud.revision();
  if (!isRestricted() && settings_.places.empty()) {
    snapshot_ = watches_.snapshotEvent(settings_.document);
    return;
  }
  sent_ = readPlaces();
  snapshot_ = event("snapshot", position_, sent_.dump());
  if (!isRestricted()) sent_ = nullptr;
}

void Watch::resume() {
  const LiveCloud& cloud = watches_.cloud_;
  position_ = *settings_.since;
  if (isRestricted()) {
    sent_ = readPlacesAt(position_);
  } else if (!settings_.places.empty()) {
    const Delta delta = cloud.history().between(settings_.document, position_, cloud.revision());
    for (const Place& place : settings_.places) {
      const auto existed = delta.existedBefore(place);
      exists_.push_back(existed ? *existed : read(place).has_value());
    }
  } else if (watches_.visible_ > position_) {
    // Kept for the first call of next(); here a failure can still be answered.
    watches_.patchEvent(settings_.document, position_,
                        watches_.portionEnd(settings_.document, position_));
  }
}

void Watch::goneBack() {
  waiting_.reset();
  if (snapshot_ != nullptr && position_ > watches_.cloud_.revision()) start();
}

bool Watch::ended() const {
  return watches_.ended_ || isCut_;
}

double Watch::bookmarkTime() const {
  return lastSent_ + Watches::kBookmarkSeconds;
}

void Watch::wake() {
  if (!asked_) return;
  asked_ = false;
  notify();
}

// Events.

std::shared_ptr<const std::string> Watch::next() {
  Bytes bytes;
  try {
    if (!watches_.ended_) bytes = nextEvent();
  } catch (const StorageError&) {
    isCut_ = true;  // the client comes back, and the reply says why
  }
  if (bytes == nullptr) {
    asked_ = true;
  } else {
    lastSent_ = watches_.cloud_.time();
  }
  return bytes;
}

Watch::Bytes Watch::nextEvent() {
  if (snapshot_ != nullptr) {
    if (position_ > watches_.visible_) return nullptr;
    return std::move(snapshot_);
  }
  if (position_ < watches_.cloud_.history().first()) isCut_ = true;
  if (isCut_) return nullptr;
  Bytes bytes;
  if (isRestricted()) {
    bytes = nextPatchOfView();
  } else if (watches_.visible_ > position_) {
    bytes = settings_.places.empty() ? nextPatch() : nextPatchOfPlaces();
  }
  if (bytes == nullptr && watches_.cloud_.time() >= bookmarkTime()) {
    bytes = event("bookmark", position_, "{}");
  }
  return bytes;
}

Watch::Bytes Watch::nextPatch() {
  Bytes bytes;
  while (bytes == nullptr && position_ < watches_.visible_) {
    const uint64_t from = position_;
    position_ = watches_.portionEnd(settings_.document, from);
    bytes = watches_.patchEvent(settings_.document, from, position_);
  }
  return bytes;
}

Watch::Bytes Watch::nextPatchOfPlaces() {
  const Delta delta =
      watches_.cloud_.history().between(settings_.document, position_, watches_.visible_);
  position_ = watches_.visible_;
  std::vector<Delta::At> changes;
  const std::vector<bool> existed = exists_;
  for (size_t i = 0; i < settings_.places.size(); ++i) {
    changes.push_back(delta.at(settings_.places[i], exists_[i]));
    if (changes.back().changed) exists_[i] = changes.back().existsAfter;
  }
  Json patch = Json::object();
  for (size_t i = 0; i < settings_.places.size(); ++i) {
    const Place& place = settings_.places[i];
    if (!changes[i].changed) continue;
    if (exists_[i]) {
      valueAt(patch, place) = std::move(changes[i].patch);
    } else if (existed[i]) {
      removeAt(patch, place, settings_.places, exists_);
    }
  }
  return patch.empty() ? nullptr : event("patch", position_, patch.dump());
}

// The view of the present revision, once that may be shown; meanwhile later ones are left out.
Watch::Bytes Watch::nextPatchOfView() {
  const uint64_t now = watches_.cloud_.revision();
  if (!waiting_ && now > position_) waiting_.emplace(now, readPlaces());
  if (!waiting_ || waiting_->first > watches_.visible_) return nullptr;
  position_ = waiting_->first;
  const Json patch = mergePatch(sent_, waiting_->second);
  sent_ = std::move(waiting_->second);
  waiting_.reset();
  return patch.empty() ? nullptr : event("patch", position_, patch.dump());
}

Watch::Bytes Watch::event(std::string_view name, uint64_t revision, std::string_view data) const {
  return eventText(name, revision, watches_.cloud_.history().check(revision), data);
}

std::optional<std::string> Watch::read(const Place& place) const {
  const LiveCloud& cloud = watches_.cloud_;
  if (settings_.document == Document::kCloud) {
    return readCloudAs(cloud.document(), place, settings_.principal);
  }
  return readOutputAs(cloud.session(), place, settings_.principal);
}

Json Watch::readPlacesAt(uint64_t revision) {
  const LiveCloud& cloud = watches_.cloud_;
  if (revision == cloud.revision()) return readPlaces();
  const auto documentAt = [&](Document document, const std::string& now) {
    Json json = Json::parse(now);
    cloud.history().between(document, revision, cloud.revision()).undoIn(json);
    return json;
  };
  CloudDocument document;
  const Json past = documentAt(Document::kCloud, *readCloud(cloud.document(), {}));
  document.apply(JsonTree::parse(past.dump()).root());
  std::string view;
  if (settings_.document == Document::kCloud) {
    view = *readCloudAs(document.state(), {}, settings_.principal);
  } else {
    view = viewOfOutput(documentAt(Document::kOutput, *readOutput(cloud.session(), {})),
                        document.state(), settings_.principal);
  }
  const Json whole = Json::parse(view);
  if (settings_.places.empty()) return whole;
  Json places = Json::object();
  for (const Place& place : settings_.places) {
    if (const Json* value = findPlace(whole, place)) valueAt(places, place) = *value;
  }
  return places;
}

Json Watch::readPlaces() {
  if (settings_.places.empty()) return Json::parse(*read({}));
  Json document = Json::object();
  exists_.assign(settings_.places.size(), false);
  for (size_t i = 0; i < settings_.places.size(); ++i) {
    const auto text = read(settings_.places[i]);
    if (text) valueAt(document, settings_.places[i]) = Json::parse(*text);
    exists_[i] = text.has_value();
  }
  return document;
}

// All watches.

void Watches::visibleIs(uint64_t revision) {
  visible_ = revision;
  wakeAll();
}

void Watches::wakeAll() {
  for (const auto& [number, watch] : all_) watch->wake();
}

double Watches::nextTimer() const {
  return all_.empty() ? std::numeric_limits<double>::infinity() : nextLook_;
}

void Watches::turn() {
  const double now = cloud_.time();
  if (now < nextLook_) return;
  nextLook_ = now + kLookSeconds;
  for (const auto& [number, watch] : all_) {
    if (now >= watch->bookmarkTime()) watch->wake();
  }
}

void Watches::goneBack() {
  shared_.clear();
  snapshots_ = {};
  for (const auto& [number, watch] : all_) watch->goneBack();
  wakeAll();
}

void Watches::end() {
  ended_ = true;
  wakeAll();
}

uint64_t Watches::largestLag() const {
  uint64_t lag = 0;
  for (const auto& [number, watch] : all_)
    lag = std::max(lag, visible_ - std::min(visible_, watch->position()));
  return lag;
}

uint64_t Watches::portionEnd(Document document, uint64_t from) const {
  return cloud_.history().portionEnd(document, from, visible_);
}

std::shared_ptr<const std::string> Watches::patchEvent(Document document, uint64_t from,
                                                       uint64_t to) {
  const auto known = std::ranges::find_if(shared_, [&](const Shared& shared) {
    return shared.document == document && shared.from == from && shared.to == to;
  });
  if (known != shared_.end()) return known->event;
  const auto patch = cloud_.history().patch(document, from, to);
  std::shared_ptr<const std::string> event;
  if (*patch != "{}") event = eventText("patch", to, cloud_.history().check(to), *patch);
  shared_.push_front({document, from, to, event});
  if (shared_.size() > kSharedEvents) shared_.pop_back();
  return event;
}

std::shared_ptr<const std::string> Watches::snapshotEvent(Document document) {
  auto& [revision, held] = snapshots_[static_cast<size_t>(document)];
  auto event = held.lock();
  if (event != nullptr && revision == cloud_.revision()) return event;
  revision = cloud_.revision();
  const auto text = document == Document::kCloud ? readCloud(cloud_.document(), {})
                                                 : readOutput(cloud_.session(), {});
  event = eventText("snapshot", revision, cloud_.history().check(revision), *text);
  held = event;
  return event;
}

}  // namespace vnagent
