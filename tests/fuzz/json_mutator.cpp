// Mutates inputs that are lines of JSON by what they say instead of by their bytes: members come,
// go and change, lines trade places, and pieces of one line become the patch of another. Now and
// then the bytes are left to libFuzzer, for what is no JSON.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed);

namespace {

using nlohmann::json;

constexpr int kDeepest = 40;

class Mutation {
 public:
  Mutation(std::string_view text, unsigned seed) : random_(seed) {
    if (json whole = parsed(text); !whole.is_discarded()) {
      lines_.push_back(std::move(whole));
      return;
    }
    while (!text.empty()) {
      const auto line = text.substr(0, text.find('\n'));
      if (json value = parsed(line); !value.is_discarded()) lines_.push_back(std::move(value));
      text.remove_prefix(std::min(text.size(), line.size() + 1));
    }
  }

  bool empty() const { return lines_.empty(); }

  void run() {
    do mutate();
    while (below(3) == 0);
  }

  std::string text() const {
    std::string text;
    for (const json& line : lines_) {
      text += line.dump(-1, ' ', false, json::error_handler_t::replace);
      text += '\n';
    }
    text.pop_back();
    return text;
  }

 private:
  static json parsed(std::string_view text) { return json::parse(text, nullptr, false); }

  size_t below(size_t limit) { return random_() % limit; }
  json& line() { return lines_[below(lines_.size())]; }

  static void gather(json& value, std::vector<json*>& all, int depth) {
    all.push_back(&value);
    if (!value.is_structured() || depth == kDeepest) return;
    for (json& member : value) gather(member, all, depth + 1);
  }
  // Any value of a line, any of any line.
  json& anyIn(json& line) {
    std::vector<json*> all;
    gather(line, all, 0);
    return *all[below(all.size())];
  }
  json& any() { return anyIn(line()); }

  // A key of any object, else a new one.
  std::string anyKey() {
    for (int tries = 0; tries < 4; ++tries) {
      const json& object = any();
      if (!object.is_object() || object.empty()) continue;
      return std::next(object.begin(), static_cast<int>(below(object.size()))).key();
    }
    return std::string(1, static_cast<char>('a' + below(4)));
  }

  json scalar() {
    static const std::array<const char*, 26> kTexts{"null",
                                                    "true",
                                                    "false",
                                                    "0",
                                                    "1",
                                                    "2",
                                                    "10",
                                                    "11",
                                                    "255",
                                                    "256",
                                                    "4094",
                                                    "4095",
                                                    "65536",
                                                    "16777216",
                                                    "4294967296",
                                                    "-1",
                                                    "0.5",
                                                    "1e9",
                                                    "{}",
                                                    "[]",
                                                    "\"\"",
                                                    "\"vlan\"",
                                                    "\"vxlan\"",
                                                    "\"syncInProgress\"",
                                                    "\"syncComplete\"",
                                                    "\"a\""};
    return json::parse(kTexts[below(kTexts.size())]);
  }

  void mutate() {
    json& value = any();
    switch (below(10)) {
      case 0:
        value = scalar();
        break;
      case 1:
        value = json(any());
        break;
      case 2:
        std::swap(line(), line());
        break;
      case 3:
        if (value.is_object() && !value.empty()) value.erase(anyMember(value));
        if (value.is_array() && !value.empty()) value.erase(below(value.size()));
        break;
      case 4:
        add(value, json(any()));
        break;
      case 5:
        add(value, scalar());
        break;
      case 6:
        if (value.is_number_integer()) value = value.get<int64_t>() + (below(2) == 0 ? 1 : -1);
        if (value.is_string()) value = anyKey();
        break;
      case 7:
        lines_.insert(lines_.begin() + static_cast<int>(below(lines_.size() + 1)), json(line()));
        break;
      case 8:
        if (lines_.size() > 1)
          lines_.erase(lines_.begin() + static_cast<int>(below(lines_.size())));
        break;
      case 9:
        if (lines_.size() > 1 || below(8) == 0) lines_.push_back(patch());
        break;
    }
  }

  std::string anyMember(const json& object) {
    return std::next(object.begin(), static_cast<int>(below(object.size()))).key();
  }
  void add(json& to, json what) {
    if (to.is_object()) to[anyKey()] = std::move(what);
    if (to.is_array()) to.push_back(std::move(what));
  }

  // A patch of one place in the document of the first line, or an event of another kind.
  json patch() {
    if (below(6) == 0) return {{below(2) == 0 ? "advance" : "regionSyncTimeout", below(100)}};
    json place = json::object();
    json* to = &place;
    const json* from = &lines_.front();
    while (from->is_object() && !from->empty() && below(6) != 0) {
      const std::string key = anyMember(*from);
      from = &from->at(key);
      to = &(*to)[key];
    }
    switch (below(3)) {
      case 0:
        *to = nullptr;
        break;
      case 1:
        *to = *from;
        break;
      case 2:
        *to = any();
        break;
    }
    return {{"patch", place}};
  }

  std::minstd_rand random_;
  std::vector<json> lines_;
};

}  // namespace

size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize, unsigned int seed) {
  Mutation mutation({reinterpret_cast<const char*>(data), size}, seed);
  if (seed % 8 == 0 || mutation.empty()) return LLVMFuzzerMutate(data, size, maxSize);
  mutation.run();
  const std::string text = mutation.text();
  if (text.size() > maxSize) return LLVMFuzzerMutate(data, size, maxSize);
  std::memcpy(data, text.data(), text.size());
  return text.size();
}
