// Prints a cloud document: in the order of the tables, without the members that have their default;
// regions, bindings and the other members of collections as they are. What is printed, the agent
// takes back and has the same document.
#pragma once

#include "agent/document/cloud_state.h"
#include "agent/json/json_writer.h"

namespace vnagent {

void writeCloud(const CloudState& state, JsonWriter& json);

// One thing of it, as an object.
void writeConfig(const Config& config, JsonWriter& json);
void writeRegion(const Region& region, JsonWriter& json);
void writePortBinding(const PortBinding& binding, JsonWriter& json);
void writeThing(const Thing& thing, const CollectionRow& row, JsonWriter& json);
void writeAttachment(const Attachment& attachment, const Kind& kind, JsonWriter& json);
void writeVlanAssignment(const VlanSet& vlans, JsonWriter& json);

// Whether a scalar is printed, and whether nothing of the configuration is.
bool isPrinted(const Scalar& value, const ScalarRow& row);
bool isEmpty(const Config& config);

}  // namespace vnagent
