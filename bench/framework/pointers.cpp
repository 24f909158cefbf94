// Copies of pointers, made and dropped again.
//
//   pointers/SIDE
//
// Sides: kiv, Kiv::Ptr; intrusive, boost::intrusive_ptr with the same counter; shared,
// std::shared_ptr. 1,000 objects in turn; time is that of one copy.
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <memory>
#include <vector>

#include "bench/framework/Counting.h"
#include "bench/groups.h"

namespace bench {

// How boost::intrusive_ptr counts.
inline void intrusive_ptr_add_ref(const Subject* object) {
  object->referencesInc();
}
inline void intrusive_ptr_release(const Subject* object) {
  object->referencesDec();
}

namespace {

constexpr std::size_t kObjects = 1000;

template <class Pointer>
void copy(benchmark::State& state, const std::vector<Pointer>& objects) {
  while (state.KeepRunningBatch(kObjects)) {
    for (const Pointer& object : objects) {
      Pointer copy(object);
      benchmark::DoNotOptimize(copy);
    }
  }
}

}  // namespace

void addPointers(Suite& suite) {
  suite.addLoop("pointers/kiv", [](benchmark::State& state) {
    std::vector<Kiv::Ptr<Subject>> objects;
    for (std::size_t i = 0; i < kObjects; ++i) objects.push_back(Kiv::make<Subject>());
    copy(state, objects);
  });
  suite.addLoop("pointers/intrusive", [](benchmark::State& state) {
    std::vector<boost::intrusive_ptr<Subject>> objects;
    for (std::size_t i = 0; i < kObjects; ++i) {
      objects.emplace_back(Kiv::make<Subject>().release(), false);
    }
    copy(state, objects);
  });
  suite.addLoop("pointers/shared", [](benchmark::State& state) {
    std::vector<std::shared_ptr<std::uint64_t>> objects;
    for (std::size_t i = 0; i < kObjects; ++i) objects.push_back(std::make_shared<std::uint64_t>());
    copy(state, objects);
  });
}

}  // namespace bench
