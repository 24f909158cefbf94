// The output document as a JSON Schema (draft 2020-12).
#pragma once

#include <string_view>

namespace vnagent {

inline constexpr std::string_view kOutputSchema = R"({
  "$schema": "https://json-schema.org/draft/2020-12/schema",
  "title": "The output document of vnagent",
  "type": "object",
  "properties": {
    "regionStatus": {
      "description": "The sync status of each region, by region.",
      "type": "object",
      "additionalProperties": {"$ref": "#/$defs/region-status"}
    },
    "requestedResources": {
      "type": "object",
      "properties": {
        "resourcesForHostname": {
          "description": "What hosts need, by host.",
          "type": "object",
          "additionalProperties": {"$ref": "#/$defs/host"}
        },
        "resourcesForSwitchport": {
          "description": "What switch ports need, by switch identifier, then by interface name.",
          "type": "object",
          "additionalProperties": {
            "type": "object",
            "additionalProperties": {"$ref": "#/$defs/switch-port"}
          }
        }
      },
      "additionalProperties": false,
      "required": ["resourcesForHostname", "resourcesForSwitchport"]
    },
    "networkElement": {
      "description": "With the feature toggle off: network elements, by name.",
      "type": "object",
      "additionalProperties": {"$ref": "#/$defs/network-element"}
    }
  },
  "additionalProperties": false,
  "required": ["regionStatus", "requestedResources", "networkElement"],
  "$defs": {
    "names": {"type": "array", "items": {"type": "string"}, "uniqueItems": true},
    "vlan-id": {"type": "integer", "minimum": 1, "maximum": 4094},
    "native-vlan": {
      "description": "The untagged VLAN; 0 for none.",
      "type": "integer",
      "minimum": 0,
      "maximum": 4094
    },
    "vlan-set": {"type": "array", "items": {"$ref": "#/$defs/vlan-id"}, "uniqueItems": true},
    "sync-status": {"enum": ["syncUnknown", "syncInProgress", "syncTimedOut", "syncComplete"]},
    "region-status": {
      "type": "object",
      "properties": {
        "syncStatus": {"$ref": "#/$defs/sync-status"},
        "oldSyncStatus": {"$ref": "#/$defs/sync-status"},
        "owner": {"description": "Who holds the sync lock.", "type": "string"},
        "requestId": {"description": "The request that holds it.", "type": "string"},
        "vlanAssignmentUuid": {
          "description": "Another one after each change of the pool.",
          "type": "string"
        },
        "vlanPool": {
          "type": "object",
          "properties": {
            "assignedVlan": {"$ref": "#/$defs/vlan-set"},
            "availableVlan": {"$ref": "#/$defs/vlan-set"},
            "allocatedVlan": {"$ref": "#/$defs/vlan-set"}
          },
          "additionalProperties": false,
          "required": ["assignedVlan", "availableVlan", "allocatedVlan"]
        }
      },
      "additionalProperties": false,
      "required": ["syncStatus", "oldSyncStatus", "owner", "requestId", "vlanAssignmentUuid",
                   "vlanPool"]
    },
    "domains": {
      "description": "The referrers of each region, by region.",
      "type": "object",
      "additionalProperties": {"$ref": "#/$defs/names"}
    },
    "vlans": {
      "description": "By VLAN id.",
      "type": "object",
      "patternProperties": {
        "^(?:[1-9][0-9]{0,2}|[1-3][0-9]{3}|40[0-8][0-9]|409[0-4])$": {
          "type": "object",
          "properties": {
            "referrer": {"$ref": "#/$defs/names"},
            "mappedVni": {
              "description": "The referrers of each VNI, by VNI.",
              "type": "object",
              "patternProperties": {"^[1-9][0-9]{0,7}$": {"$ref": "#/$defs/names"}},
              "additionalProperties": false
            }
          },
          "additionalProperties": false,
          "required": ["referrer", "mappedVni"]
        }
      },
      "additionalProperties": false
    },
    "host": {
      "type": "object",
      "properties": {
        "domain": {"$ref": "#/$defs/domains"},
        "vlan": {"$ref": "#/$defs/vlans"}
      },
      "additionalProperties": false,
      "required": ["domain", "vlan"]
    },
    "switch-port": {
      "type": "object",
      "properties": {
        "vlan": {"$ref": "#/$defs/vlans"},
        "nativeVlan": {"$ref": "#/$defs/native-vlan"},
        "remoteHost": {"$ref": "#/$defs/names"},
        "referrer": {"$ref": "#/$defs/names"}
      },
      "additionalProperties": false,
      "required": ["vlan", "nativeVlan", "remoteHost", "referrer"]
    },
    "network-element": {
      "type": "object",
      "properties": {
        "hostname": {"type": "string"},
        "referrer": {"$ref": "#/$defs/names"},
        "domain": {"$ref": "#/$defs/domains"},
        "vlan": {"$ref": "#/$defs/vlans"},
        "physicalInterface": {
          "description": "By interface name.",
          "type": "object",
          "additionalProperties": {
            "type": "object",
            "properties": {
              "vlan": {"$ref": "#/$defs/vlans"},
              "nativeVlan": {"$ref": "#/$defs/native-vlan"},
              "configuredElement": {"$ref": "#/$defs/names"}
            },
            "additionalProperties": false,
            "required": ["vlan", "nativeVlan", "configuredElement"]
          }
        }
      },
      "additionalProperties": false,
      "required": ["hostname", "referrer", "domain", "vlan", "physicalInterface"]
    }
  }
}
)";

}  // namespace vnagent
