#include "OpenStackSm/Uuid.h"

#include <sys/random.h>

#include <algorithm>
#include <boost/random/mersenne_twister.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cerrno>
#include <system_error>
#include <vector>

namespace [[gnu::visibility("default")]] OpenStack {
namespace {

UuidSource& installed() {
  static UuidSource source;
  return source;
}

// A seed sequence that asks the system once for the whole state of a generator, where Boost's own
// asks for each of its 624 words.
class SystemSeed {
 public:
  template <class Iterator>
  void generate(Iterator first, Iterator last) {
    std::vector<Kiv::U32> words(static_cast<std::size_t>(last - first));
    fill(reinterpret_cast<char*>(words.data()), words.size() * sizeof(Kiv::U32));
    std::copy(words.begin(), words.end(), first);
  }

 private:
  static void fill(char* bytes, std::size_t size) {
    while (size != 0) {
      const ssize_t got = getrandom(bytes, size, 0);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) throw std::system_error(errno, std::generic_category(), "getrandom");
      bytes += got;
      size -= static_cast<std::size_t>(got);
    }
  }
};

std::string randomUuid() {
  SystemSeed seed;
  boost::random::mt19937 engine(seed);
  boost::uuids::basic_random_generator<boost::random::mt19937> generator(engine);
  return boost::uuids::to_string(generator());
}

}  // namespace

void uuidSourceIs(UuidSource source) {
  installed() = std::move(source);
}

Kiv::String uuid() {
  return Kiv::String(installed() ? installed()() : randomUuid());
}

}  // namespace OpenStack
