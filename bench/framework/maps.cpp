// Keyed collections of 100,000 members with UUIDs as keys.
//
//   maps/WHAT/SIDE
//
// WHAT: hit and miss, look-ups in random order by keys that are equal to the members', not the same
// objects; insert, members made and inserted into an empty map, which grows; iterate. Sides: kiv,
// Kiv::HashMap; node, absl::node_hash_map; flat, absl::flat_hash_map; unordered,
// std::unordered_map; intrusive, boost::intrusive::unordered_set, whose buckets are there from the
// start. All have the same keys, Kiv::String, which know their hash. Time is that of one member.
#include <absl/container/flat_hash_map.h>
#include <absl/container/node_hash_map.h>

#include <boost/intrusive/unordered_set.hpp>
#include <memory>
#include <unordered_map>
#include <vector>

#include "bench/data/Cloud.h"
#include "bench/groups.h"
#include "framework/HashMap.h"
#include "framework/Text.h"

namespace bench {
namespace {

using Kiv::String;

constexpr std::uint32_t kMembers = 100000;

// The keys of a map: in order of insertion, in order of look-up, and keys that are absent.
struct Keys {
  std::vector<String> in;
  std::vector<String> sought;
  std::vector<String> absent;

  Keys() {
    const Cloud cloud(2 * kMembers, Shape::spread);
    for (const auto i : Cloud(kMembers, Shape::spread).shuffled(1))
      in.emplace_back(cloud.portId(i));
    for (const auto i : Cloud(kMembers, Shape::spread).shuffled(2)) {
      sought.emplace_back(cloud.portId(i));
      absent.emplace_back(cloud.portId(kMembers + i));
    }
  }
};

const Keys& keys() {
  static const Keys theKeys;
  return theKeys;
}

// A member of a Kiv::HashMap.
class KivMember final : public Kiv::Member {
 public:
  static constexpr std::string_view kTypeName = "bench::KivMember";
  explicit KivMember(String key) : key_(std::move(key)) {}
  const Kiv::Type& fwkType() const override { return Kiv::typeRecord<KivMember>; }
  const String& fwkKey() const { return key_; }
  std::uint64_t value() const { return value_; }

 private:
  String key_;
  std::uint64_t value_ = 1;
};

// The sides: how each inserts, looks up, and iterates over its members.
struct KivSide {
  Kiv::HashMap<KivMember, String> map;
  void insert(const String& key) { map.newMember(Kiv::make<KivMember>(key)); }
  bool contains(const String& key) const { return map[key] != nullptr; }
  std::uint64_t sum() const {
    std::uint64_t sum = 0;
    for (const auto& member : map) sum += member->value();
    return sum;
  }
};

template <class Map>
struct MapSide {
  Map map;
  void insert(const String& key) { map.try_emplace(key, 1); }
  bool contains(const String& key) const { return map.find(key) != map.end(); }
  std::uint64_t sum() const {
    std::uint64_t sum = 0;
    for (const auto& [key, value] : map) sum += value;
    return sum;
  }
};
using NodeSide = MapSide<absl::node_hash_map<String, std::uint64_t, std::hash<String>>>;
using FlatSide = MapSide<absl::flat_hash_map<String, std::uint64_t, std::hash<String>>>;
using UnorderedSide = MapSide<std::unordered_map<String, std::uint64_t>>;

struct IntrusiveSide {
  struct Member : boost::intrusive::unordered_set_base_hook<boost::intrusive::store_hash<true>> {
    explicit Member(const String& k) : key(k) {}
    String key;
    std::uint64_t value = 1;
    friend bool operator==(const Member& a, const Member& b) { return a.key == b.key; }
    friend std::size_t hash_value(const Member& member) { return member.key.hash(); }
  };
  using Map = boost::intrusive::unordered_set<Member, boost::intrusive::power_2_buckets<true>>;
  struct Equal {
    bool operator()(const String& key, const Member& member) const { return key == member.key; }
  };

  std::vector<Map::bucket_type> buckets{131072};
  Map map{Map::bucket_traits(buckets.data(), buckets.size())};
  ~IntrusiveSide() {
    map.clear_and_dispose([](Member* member) { delete member; });
  }
  void insert(const String& key) { map.insert(*new Member(key)); }
  bool contains(const String& key) const {
    return map.find(key, std::hash<String>(), Equal()) != map.end();
  }
  std::uint64_t sum() const {
    std::uint64_t sum = 0;
    for (const auto& member : map) sum += member.value;
    return sum;
  }
};

template <class Side>
void fill(Side& side) {
  for (const String& key : keys().in) side.insert(key);
}

template <class Side>
void lookUp(benchmark::State& state, const Side& side, const std::vector<String>& sought,
            bool expected) {
  std::size_t found = 0;
  std::size_t all = 0;
  while (state.KeepRunningBatch(kMembers)) {
    for (const String& key : sought) found += side.contains(key) ? 1 : 0;
    all += kMembers;
  }
  if (found != (expected ? all : 0)) state.SkipWithError("look-ups went wrong");
}

template <class Side>
void addSide(Suite& suite, const std::string& side) {
  const auto filled = [](auto function) {
    return [function](benchmark::State& state) {
      Side map;
      fill(map);
      function(state, map);
    };
  };
  suite.addLoop("maps/hit/" + side, filled([](benchmark::State& state, const Side& map) {
                  lookUp(state, map, keys().sought, true);
                }));
  suite.addLoop("maps/miss/" + side, filled([](benchmark::State& state, const Side& map) {
                  lookUp(state, map, keys().absent, false);
                }));
  suite.addLoop("maps/iterate/" + side, filled([](benchmark::State& state, const Side& map) {
                  while (state.KeepRunningBatch(kMembers)) benchmark::DoNotOptimize(map.sum());
                }));
  suite.addBatch("maps/insert/" + side, kMembers, suite.repetitions(), [](benchmark::State& state) {
    keys();
    Side map;
    while (state.KeepRunningBatch(kMembers)) {
      const Stopwatch watch;
      fill(map);
      state.SetIterationTime(watch.seconds());
    }
  });
}

}  // namespace

void addMaps(Suite& suite) {
  addSide<KivSide>(suite, "kiv");
  addSide<NodeSide>(suite, "node");
  addSide<FlatSide>(suite, "flat");
  addSide<UnorderedSide>(suite, "unordered");
  addSide<IntrusiveSide>(suite, "intrusive");
}

}  // namespace bench
