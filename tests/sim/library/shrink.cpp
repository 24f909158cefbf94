#include "tests/sim/library/shrink.h"

#include <algorithm>

namespace sim {
namespace {

class Shrinker {
 public:
  Shrinker(Stream stream, const std::function<std::optional<Failure>(const Stream&)>& failure,
           int attempts)
      : best_(std::move(stream)), failure_(failure), left_(attempts) {}

  Stream shrink() {
    std::size_t before = 0;
    do {
      before = size(best_);
      shortenEvents();
      for (std::size_t i = 0; i < best_.events.size(); ++i) shortenEdits(i);
    } while (size(best_) < before && left_ > 0);
    return best_;
  }

 private:
  static std::size_t size(const Stream& stream) {
    std::size_t total = stream.events.size();
    for (const Event& event : stream.events) total += event.edits.size();
    return total;
  }

  // Takes the smaller stream where it fails, too; without what follows the failure.
  bool take(Stream smaller) {
    if (left_ <= 0) return false;
    --left_;
    const auto found = failure_(smaller);
    if (!found) return false;
    smaller.events.resize(std::min(smaller.events.size(), found->events));
    best_ = std::move(smaller);
    return true;
  }

  // Takes out runs of items, long ones first. `items(stream)` is the list to shorten.
  template <class Items>
  void shorten(Items items) {
    for (std::size_t length = items(best_).size(); length > 0; length /= 2) {
      for (std::size_t from = items(best_).size(); from > 0;) {
        from = from > length ? from - length : 0;
        Stream smaller = best_;
        auto& list = items(smaller);
        if (from >= list.size()) continue;
        const auto begin = list.begin() + static_cast<std::ptrdiff_t>(from);
        const auto end =
            list.size() - from < length ? list.end() : begin + static_cast<std::ptrdiff_t>(length);
        list.erase(begin, end);
        take(std::move(smaller));
      }
    }
  }

  void shortenEvents() {
    shorten([](Stream& stream) -> std::vector<Event>& { return stream.events; });
  }
  void shortenEdits(std::size_t event) {
    static std::vector<Edit> none;
    shorten([event](Stream& stream) -> std::vector<Edit>& {
      return event < stream.events.size() ? stream.events[event].edits : none;
    });
  }

  Stream best_;
  const std::function<std::optional<Failure>(const Stream&)>& failure_;
  int left_;
};

}  // namespace

Stream shrunk(Stream stream, const std::function<std::optional<Failure>(const Stream&)>& failure,
              int attempts) {
  return Shrinker(std::move(stream), failure, attempts).shrink();
}

}  // namespace sim
