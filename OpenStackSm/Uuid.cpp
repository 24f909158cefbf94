#include "OpenStackSm/Uuid.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace [[gnu::visibility("default")]] OpenStack {

Kiv::String uuid() {
  boost::uuids::random_generator_mt19937 generator;
  return Kiv::String(boost::uuids::to_string(generator()));
}

}  // namespace OpenStack
