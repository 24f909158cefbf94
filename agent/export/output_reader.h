// Reads the text of output documents, and of merge patches on them, as far as an export looks at
// them. Lists say who asked for something; they are not kept, and `true` is in their place. That
// saves much of the time and the memory that a large document takes.
//
// Any thread.
#pragma once

#include <string_view>

#include <nlohmann/json.hpp>

namespace vnagent {

// The document; a discarded value where the text is not JSON.
nlohmann::json readOutput(std::string_view text);

}  // namespace vnagent
