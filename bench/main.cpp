// openstacksm_bench: what the machines, the framework and the agent cost. See README.md.
#include <cstring>
#include <exception>
#include <iostream>
#include <string_view>
#include <vector>

#include "bench/groups.h"

namespace {

// The value of an option "--name=value"; null when the argument is another.
const char* value(const char* argument, std::string_view name) {
  return std::string_view(argument).starts_with(name) ? argument + name.size() : nullptr;
}

bench::Options optionsOf(int argc, char** argv) {
  bench::Options options;
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--quick") {
      options.quick = true;
    } else if (const char* filter = value(argv[i], "--filter=")) {
      options.filter = filter;
    } else if (const char* results = value(argv[i], "--results=")) {
      options.results = results;
    } else if (const char* program = value(argv[i], "--vnagent=")) {
      options.vnagent = program;
    } else {
      throw std::invalid_argument(std::string("unknown option ") + argv[i]);
    }
  }
  if (options.results.empty()) throw std::invalid_argument("--results=FILE is needed");
  return options;
}

// Tells Google Benchmark to interleave the repetitions of what is registered together. It keeps the
// first argument, to name the program in its results.
void interleave() {
  static std::vector<std::string> arguments{"openstacksm_bench",
                                            "--benchmark_enable_random_interleaving=true"};
  std::vector<char*> pointers;
  for (auto& argument : arguments) pointers.push_back(argument.data());
  int count = static_cast<int>(pointers.size());
  benchmark::Initialize(&count, pointers.data());
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc == 2) {
      if (const char* what = value(argv[1], "--alone=")) return bench::measureAlone(what);
      if (const char* path = value(argv[1], "--parse=")) return bench::parseFile(path);
    }
    const bench::Options options = optionsOf(argc, argv);
    interleave();
    bench::Suite suite(options);
    suite.group(bench::checkLimit);
    bench::benchBinding(suite);
    for (void (*add)(bench::Suite&) :
         {bench::addMemory, bench::addLoads, bench::addRegions, bench::addDispatch,
          bench::addDelivery, bench::addPointers, bench::addMaps, bench::addNames, bench::addTrace,
          bench::addAgent, bench::addAgentChanges}) {
      suite.group([&] { add(suite); });
    }
    suite.finish();
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "openstacksm_bench: " << error.what() << '\n';
    return 1;
  }
}
