// The cloud document as a whole.
#pragma once

#include <array>

#include "agent/document/kinds/config.h"
#include "agent/document/kinds/region.h"

namespace vnagent {

inline constexpr std::array<CollectionRow, 2> kDocumentMembers{{
    {.name = "config",
     .what = "the agent configuration",
     .about = "How the agent is configured.",
     .of = &kConfig,
     .shape = CollectionRow::Shape::kOne},
    {.name = "region",
     .what = "regions by name",
     .about = "The regions of the cloud.",
     .of = &kRegion},
}};

inline constexpr Kind kDocument{"a cloud document", OnChange::kReplace, {}, kDocumentMembers};

}  // namespace vnagent
