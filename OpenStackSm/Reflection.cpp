#include "OpenStackSm/Reflection.h"

#include "OpenStackSm/OpenStackSm.h"

namespace [[gnu::visibility("default")]] OpenStack {

std::array<const Kiv::GenericIf*, 5> machineReflections() {
  return {&OpenStackSm::reflection(), &RegionConfigSm::reflection(), &PortBindingSm::reflection(),
          &PortToHostBindingSm::reflection(), &PortToSwitchInterfaceBindingSm::reflection()};
}

const Kiv::GenericIf* machineReflection(std::string_view typeName) {
  for (const Kiv::GenericIf* machine : machineReflections()) {
    if (machine->typeName() == typeName) return machine;
  }
  return nullptr;
}

Kiv::GenericValue genericIfFromCtorArgs(std::string_view typeName,
                                        Kiv::GenericArgumentsView arguments) {
  const Kiv::GenericIf* machine = machineReflection(typeName);
  if (machine == nullptr) {
    Kiv::throwRangeException("there is no machine of type " + std::string(typeName));
  }
  return machine->genericIfFromCtorArgs(arguments);
}

}  // namespace OpenStack
