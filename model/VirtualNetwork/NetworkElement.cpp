#include "model/VirtualNetwork/NetworkElement.h"

namespace [[gnu::visibility("default")]] VirtualNetwork {

NetworkElementCollection::~NetworkElementCollection() {
  for (const auto& element : networkElement_) element->physicalInterfaceDelAll();
}

}  // namespace VirtualNetwork
