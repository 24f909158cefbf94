// The tables of the cloud document against the entities that they describe: nothing of an entity is
// without a row, no row without an attribute, and each row reaches its own attribute.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "agent/document/kinds/document.h"
#include "framework/GenericIf.h"
#include "model/OpenStack/OpenStackConfig.h"

namespace vnagent {
namespace {

using Kiv::KivAttr;
using Kiv::KivAttrKind;

struct Described {
  const Kind* kind;
  Kiv::Ptr<Kiv::PtrInterface> entity;
  std::set<std::string_view> keys = {};  // attributes that are the key, or say what the key says
};

template <class Entity, class... Key>
Described described(const Kind& kind, std::set<std::string_view> keys, Key... key) {
  return {&kind, Kiv::Ptr<Kiv::PtrInterface>(Kiv::make<Entity>(key...)), std::move(keys)};
}

std::vector<Described> all() {
  const Kiv::String id(std::string_view("x"));
  const Kiv::Name name(std::string_view("x"));
  std::vector<Described> result;
  result.push_back(described<OpenStack::Config>(kConfig, {}));
  result.push_back(described<OpenStack::VlanAssignment>(kVlanAssignment, {"regionName"}, name));
  result.push_back(described<OpenStack::Region>(kRegion, {"name"}, name));
  result.push_back(described<OpenStack::Segment>(kSegment, {"id"}, id));
  result.push_back(described<OpenStack::Port>(kPort, {"id"}, id));
  // The port of a binding is the one of its id.
  result.push_back(described<OpenStack::PortBinding>(kPortBinding, {"portId", "port"}, id));
  result.push_back(described<OpenStack::PortToHostBinding>(kHostBinding, {"host"}, name));
  result.push_back(described<OpenStack::PortToSwitchInterfaceBinding>(
      kSwitchInterfaceBinding, {"switchInterface"}, VirtualNetwork::SwitchInterface{id, id}));
  result.push_back(described<OpenStack::IdentifiedObject>(kNamed, {"id"}, id));
  return result;
}

// Every kind that is in the document.
void collect(const Kind& kind, std::set<const Kind*>& kinds) {
  kinds.insert(&kind);
  for (const CollectionRow& row : kind.collections) {
    if (row.of != nullptr) collect(*row.of, kinds);
  }
}

TEST(Kinds, EveryKindIsComparedWithItsEntity) {
  std::set<const Kind*> kinds;
  collect(kDocument, kinds);
  kinds.erase(&kDocument);
  for (const Described& one : all()) kinds.erase(one.kind);
  for (const Kind* kind : kinds) {
    ADD_FAILURE() << kind->name << " is not in all() of this test: add it with its entity";
  }
}

TEST(Kinds, EveryAttributeHasARow) {
  for (const auto& [kind, entity, keys] : all()) {
    for (const KivAttr& attribute : entity->genericIf()->attributes()) {
      const std::string_view name = attribute.name;
      const bool row =
          findRow(kind->scalars, name) != nullptr || findRow(kind->collections, name) != nullptr;
      EXPECT_TRUE(row || keys.contains(name))
          << entity->fwkType().name() << " has the attribute " << name << ", and the table of "
          << kind->name << " has no row of this name: add it in agent/document/kinds";
    }
  }
}

TEST(Kinds, EveryRowHasAnAttribute) {
  for (const auto& [kind, entity, keys] : all()) {
    const auto expect = [&, &entity = entity, &kind = kind](std::string_view name) {
      EXPECT_NE(entity->genericIf()->attribute(name), nullptr)
          << "the table of " << kind->name << " has the row " << name
          << ", and reflection does not know this attribute of " << entity->fwkType().name()
          << ": add it to the entity's attributes in model/OpenStack";
    };
    for (const ScalarRow& row : kind->scalars) expect(row.name);
    for (const CollectionRow& row : kind->collections) expect(row.name);
  }
}

// A value that is not the default, and the text that reflection has for it.
std::pair<Scalar, std::string> sampleOf(const Form& form) {
  switch (form.type) {
    case Form::Type::kBool:
      return {true, "true"};
    case Form::Type::kInteger:
    case Form::Type::kWord:
      return {int64_t{1}, form.words.empty() ? "1" : std::string(form.words[1])};
    case Form::Type::kNumber:
    case Form::Type::kSeconds:
      return {2.5, "2.5"};
    case Form::Type::kText:
    case Form::Type::kName:
      break;
  }
  return {std::string("text"), "text"};
}

TEST(Kinds, EachScalarReachesItsOwnAttributeAndNoOther) {
  for (const auto& [kind, entity, keys] : all()) {
    std::set<std::string_view> written;
    const auto textOf = [&entity = entity](std::string_view name) {
      return entity->genericIf()->read(*entity, name).text();
    };
    for (const ScalarRow& row : kind->scalars) {
      const auto [value, text] = sampleOf(row.form);
      EXPECT_NE(textOf(row.name), text) << kind->name << ": " << row.name;
      row.write(*entity, value);
      EXPECT_EQ(textOf(row.name), text) << kind->name << ": " << row.name;
      written.insert(row.name);
      for (const ScalarRow& other : kind->scalars) {
        if (written.contains(other.name)) continue;
        EXPECT_NE(textOf(other.name), sampleOf(other.form).second)
            << kind->name << ": " << row.name << " reached " << other.name;
      }
    }
  }
}

}  // namespace
}  // namespace vnagent
