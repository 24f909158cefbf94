#include "OpenStackSm/Uuid.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace [[gnu::visibility("default")]] OpenStack {
namespace {

UuidSource& installed() {
  static UuidSource source;
  return source;
}

std::string randomUuid() {
  // Takes its bits from the system's random source, with one call for each UUID.
  return boost::uuids::to_string(boost::uuids::random_generator()());
}

}  // namespace

void uuidSourceIs(UuidSource source) {
  installed() = std::move(source);
}

const UuidSource& uuidSource() {
  return installed();
}

Kiv::String uuid() {
  return Kiv::String(installed() ? installed()() : randomUuid());
}

}  // namespace OpenStack
