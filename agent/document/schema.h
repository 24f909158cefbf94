// The cloud document as a JSON Schema (draft 2020-12), made from the tables of its kinds.
//
// It takes what a patch on an empty document may be: every member may be null, which removes what
// is not there. It cannot say the rules that join places (rules.h), nor that names have 255 bytes
// (it counts characters), that an integer is written without a fraction, and that no key is
// repeated.
#pragma once

#include "agent/json/json_writer.h"

namespace vnagent {

void writeCloudSchema(JsonWriter& json);

}  // namespace vnagent
