// Binding and unbinding of ports, at sizes from a thousand to a million.
//
//   bind/SHAPE/PORTS/SIDE        ports are bound and unbound while nearly all are bound, in random
//                                order
//   bind-all/SHAPE/PORTS/SIDE    all ports are bound, then unbound, in random order
//   bind-hosts/SHAPE/PORTS/SIDE  the same, host by host
//
// Sides: machines, machines-whole, and the limit: intern, ids, std. Time is that of binding and
// unbinding one port; the counters have the two by themselves, in nanoseconds.
#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "bench/groups.h"
#include "bench/limit/Limit.h"
#include "bench/machines/World.h"

namespace bench {
namespace {

// Ports that are bound and unbound in a fixed order. A window of the order is unbound: its ports
// are bound, and those after it unbound. So each port was not used for as long as possible.
template <class Side>
class Churn {
 public:
  Churn(const Cloud& cloud, std::vector<std::uint32_t> order, std::uint32_t window,
        std::uint32_t rounds)
      : order_(std::move(order)), window_(window), rounds_(rounds), side_(cloud) {
    for (std::size_t at = window_; at < order_.size(); ++at) side_.bind(order_[at]);
  }

  std::int64_t operations() const { return std::int64_t{window_} * rounds_; }

  void run(benchmark::State& state) {
    double binding = 0;
    double unbinding = 0;
    while (state.KeepRunningBatch(operations())) {
      for (std::uint32_t round = 0; round < rounds_; ++round) {
        const Stopwatch first;
        for (std::uint32_t i = 0; i < window_; ++i) side_.bind(at(begin_ + i));
        binding += first.seconds();
        begin_ = (begin_ + window_) % order_.size();
        const Stopwatch second;
        for (std::uint32_t i = 0; i < window_; ++i) side_.unbind(at(begin_ + i));
        unbinding += second.seconds();
      }
      state.SetIterationTime(binding + unbinding);
    }
    const double nanoseconds = 1e9 / static_cast<double>(operations());
    state.counters["bind"] = binding * nanoseconds;
    state.counters["unbind"] = unbinding * nanoseconds;
  }

 private:
  std::uint32_t at(std::size_t index) const {
    return order_[index < order_.size() ? index : index - order_.size()];
  }

  std::vector<std::uint32_t> order_;
  std::uint32_t window_;
  std::uint32_t rounds_;
  std::size_t begin_ = 0;
  Side side_;
};

// The clouds of one shape, made when they are needed.
class Clouds {
 public:
  explicit Clouds(Shape shape) : shape_(shape) {}
  const Cloud& operator[](std::uint32_t ports) {
    return clouds_.try_emplace(ports, ports, shape_).first->second;
  }
  std::string_view shape() const { return name(shape_); }

 private:
  Shape shape_;
  std::map<std::uint32_t, Cloud> clouds_;
};

// How many ports are bound and unbound in one repetition, and in which order.
struct Plan {
  std::string name;
  std::uint32_t ports;
  bool hostByHost;
  std::uint32_t window;
  std::uint32_t rounds;
  int repetitions;
};

template <class Side>
void addSide(Suite& suite, Clouds& clouds, const Plan& plan, const char* side) {
  const std::string name = plan.name + "/" + side;
  if (!suite.wanted(name)) return;
  const Cloud& cloud = clouds[plan.ports];
  const auto churn = std::make_shared<Churn<Side>>(
      cloud, plan.hostByHost ? cloud.hostByHost() : cloud.shuffled(1), plan.window, plan.rounds);
  suite.addBatch(name, churn->operations(), plan.repetitions,
                 [churn](benchmark::State& state) { churn->run(state); });
}

void addLimitAndMachines(Suite& suite, Clouds& clouds, const Plan& plan) {
  addSide<InternLimit>(suite, clouds, plan, "intern");
  addSide<Machines>(suite, clouds, plan, "machines");
}
void addOtherLimits(Suite& suite, Clouds& clouds, const Plan& plan) {
  addSide<IdsLimit>(suite, clouds, plan, "ids");
  addSide<StdLimit>(suite, clouds, plan, "std");
}

std::string family(const char* what, const Clouds& clouds, std::uint32_t ports) {
  return std::string(what).append("/").append(clouds.shape()).append("/") + std::to_string(ports);
}

// All sizes of a shape are in one group, since their ratio, the growth of the cost, is a target.
void addChurn(Suite& suite, Clouds& clouds) {
  constexpr std::uint32_t kOperations = 20000;
  for (const std::uint32_t ports : {1000U, 10000U, 100000U, 1000000U}) {
    const std::uint32_t window = std::min(ports / 10, kOperations);
    const Plan plan{family("bind", clouds, ports),
                    ports,
                    false,
                    window,
                    kOperations / window,
                    suite.repetitions()};
    addLimitAndMachines(suite, clouds, plan);
    if (!suite.quick()) addOtherLimits(suite, clouds, plan);
    if (ports == 10000) addSide<WholeMachines>(suite, clouds, plan, "machines-whole");
  }
}

// All ports of a cloud are bound, then unbound.
void addAll(Suite& suite, Clouds& clouds, std::uint32_t ports, bool hostByHost) {
  const Plan plan{family(hostByHost ? "bind-hosts" : "bind-all", clouds, ports),
                  ports,
                  hostByHost,
                  ports,
                  std::max(1U, 10000 / ports),
                  ports > 100000 ? 3 : 10};
  addLimitAndMachines(suite, clouds, plan);
  if (ports <= 100000 && !suite.quick()) addOtherLimits(suite, clouds, plan);
}

// Each size by itself.
void benchAll(Suite& suite, Shape shape, bool hostByHost) {
  for (const std::uint32_t ports : {1000U, 10000U, 100000U, 1000000U}) {
    if (ports > 10000 && suite.quick()) break;
    if (ports > 100000 && (hostByHost || shape == Shape::packed)) break;
    Clouds clouds(shape);
    suite.group([&] { addAll(suite, clouds, ports, hostByHost); });
  }
}

}  // namespace

void benchBinding(Suite& suite) {
  for (const Shape shape : {Shape::spread, Shape::packed}) {
    Clouds clouds(shape);
    suite.group([&] { addChurn(suite, clouds); });
    benchAll(suite, shape, false);
    benchAll(suite, shape, true);
  }
}

}  // namespace bench
