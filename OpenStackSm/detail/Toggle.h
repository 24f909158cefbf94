// The one place that reads the feature toggle of the switch side.
#pragma once

namespace OpenStack::detail {

// Whether "VirtualNetworkAgentToggle" is on: switch-interface bindings then publish switch ports,
// else network elements. The answer is kept in one word for the whole process; it is asked for when
// the library is loaded, and again by each call until the service says that it is known. Activity
// thread only.
bool virtualNetworkAgentToggle();

// Forgets the answer, as if the library had just been loaded. For tests, which need both answers in
// one process; exported for them, so that they run against the library as it is shipped.
[[gnu::visibility("default")]] void virtualNetworkAgentToggleForget();

}  // namespace OpenStack::detail
