#include "model/VirtualNetwork/NetworkElement.h"

namespace VirtualNetwork {

NetworkElementCollection::~NetworkElementCollection() {
  for (const auto& element : networkElement_) element->physicalInterfaceDelAll();
}

}  // namespace VirtualNetwork
