#include "model/VirtualNetwork/Interface.h"

#include "model/VirtualNetwork/NetworkElement.h"

namespace [[gnu::visibility("default")]] VirtualNetwork {

PhysicalInterface::PhysicalInterface(Kiv::String name) : name_(std::move(name)) {}

PhysicalInterface::~PhysicalInterface() = default;

void PhysicalInterface::configuredElementIs(const Kiv::Ptr<const NetworkElement>& element) {
  if (!element) Kiv::throwNullArgument(kOnConfiguredElement.name, kTypeName);
  configuredElement_.is(*this, kOnConfiguredElement, element->name(), element);
}

void PhysicalInterface::configuredElementDel(const Kiv::Name& name) {
  configuredElement_.del(*this, kOnConfiguredElement, name);
}

void PhysicalInterface::configuredElementDelAll() {
  configuredElement_.delAll(*this, kOnConfiguredElement);
}

}  // namespace VirtualNetwork
