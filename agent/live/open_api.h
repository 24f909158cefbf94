// The description of the live agent's interface as an OpenAPI 3 document.
#pragma once

#include <string_view>

namespace vnagent {

// One line of JSON. Any thread.
std::string_view openApi();

}  // namespace vnagent
