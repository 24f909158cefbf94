// The kinds of things that a cloud document is made of, one table for each (folder kinds/).
//
// A table says of every member its name, what it may hold, whether it must be there, what it is
// for, and how it reaches the entity. Reading, checking, merging, the plan, the entities, printing,
// the schema and the page for operators all walk these tables, so that a member is described once:
//
//   inline constexpr std::array kPortScalars{
//       scalar<&OpenStack::Port::vlanTypeIs>("vlanType", form::kUint8, "How it takes its VLAN."),
//   };
//   inline constexpr Kind kPort{"a port", OnChange::kReplace, kPortScalars};
//
// A row whose form is not of the attribute's type does not compile. An attribute without a row, or
// without an entry for reflection, fails tests/agent/kinds_test.cpp, which names it.
#pragma once

#include <limits>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

#include "agent/document/vocabulary.h"
#include "framework/Ptr.h"
#include "framework/Text.h"

namespace vnagent {

struct Kind;
struct CollectionRow;

// The scalars of one thing, in the order of its kind's table; empty where none is given.
using Values = std::vector<Scalar>;

// A form that a scalar has where another one, earlier in the table, has a value.
struct FormFor {
  int64_t value;
  Form form;
};

struct ScalarRow {
  enum class Presence : uint8_t {
    kOptional,  // absent is the default
    kAsGiven,   // absent is the default, but it is printed wherever it is given
    kRequired,
  };
  std::string_view name;
  Form form;
  std::string_view about;  // for operators, a sentence
  void (*write)(Kiv::PtrInterface& entity, const Scalar& value);
  Presence presence = Presence::kOptional;
  size_t by = 0;  // the scalar that chooses among `forms`
  std::span<const FormFor> forms = {};

  constexpr ScalarRow required() const {
    ScalarRow row = *this;
    row.presence = Presence::kRequired;
    return row;
  }
  constexpr ScalarRow asGiven() const {
    ScalarRow row = *this;
    row.presence = Presence::kAsGiven;
    return row;
  }
  constexpr ScalarRow formBy(size_t scalar, std::span<const FormFor> choices) const {
    ScalarRow row = *this;
    row.by = scalar;
    row.forms = choices;
    return row;
  }
};

// A member that is an object: one thing, or things by key.
struct CollectionRow {
  enum class Shape : uint8_t {
    kOne,     // the thing itself
    kByKey,   // things by key
    kByPair,  // by the first part of the key, then by the second
  };
  std::string_view name;
  std::string_view what;        // in errors: "segments by id"
  std::string_view about;       // for operators, a sentence
  const Kind* of = nullptr;     // what a member is, where it is an object
  const Form* value = nullptr;  // what it is, where it is a scalar
  KeyForm key = key::kName;
  Shape shape = Shape::kByKey;
  // Whether the applier reaches the entity through the next two; it has operations of its own for
  // the members of other rows.
  bool isGeneric = false;
  void (*add)(const CollectionRow& row, Kiv::PtrInterface& owner, std::string_view key,
              const Values& values) = nullptr;
  void (*remove)(Kiv::PtrInterface& owner, std::string_view key) = nullptr;
};

// What it means that a scalar changes.
enum class OnChange : uint8_t {
  kWrite,    // it is written, also when it is named with the value that it has
  kReplace,  // the thing is removed and added again, with all that depends on it
};

struct Kind {
  std::string_view name;  // with its article: "a segment"
  OnChange onChange = OnChange::kReplace;
  std::span<const ScalarRow> scalars = {};
  std::span<const CollectionRow> collections = {};
};

// Which row has this name.
template <class Rows>
consteval size_t rowOf(const Rows& rows, std::string_view name) {
  for (size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].name == name) return i;
  }
  throw "no row has this name";
}
template <class Row>
const Row* findRow(std::span<const Row> rows, std::string_view name) {
  for (const Row& row : rows) {
    if (row.name == name) return &row;
  }
  return nullptr;
}

// A scalar's value, or its default.
inline const Scalar& valueOf(const Values& values, const Kind& kind, size_t scalar) {
  static const Scalar kNotGiven;
  const Scalar& held = values.empty() ? kNotGiven : values[scalar];
  return held.index() == 0 ? defaultOf(kind.scalars[scalar].form) : held;
}

// Whether both have the same values, defaults included.
inline bool areSame(const Values& a, const Values& b, const Kind& kind) {
  for (size_t i = 0; i < kind.scalars.size(); ++i) {
    if (valueOf(a, kind, i) != valueOf(b, kind, i)) return false;
  }
  return true;
}

// Writers of rows.

namespace detail {

template <class T>
T to(const Scalar& value) {
  if constexpr (std::is_same_v<T, bool>) {
    return std::get<bool>(value);
  } else if constexpr (std::is_floating_point_v<T>) {
    return std::get<double>(value);
  } else if constexpr (std::is_enum_v<T> || std::is_integral_v<T>) {
    return static_cast<T>(std::get<int64_t>(value));
  } else {
    return T(std::string_view(std::get<std::string>(value)));
  }
}

template <class T>
struct Integer {
  using type = T;
};
template <class T>
requires std::is_enum_v<T>
struct Integer<T> {
  using type = std::underlying_type_t<T>;
};

// Whether an attribute of type T takes all that the form does.
template <class T>
consteval bool takes(const Form& form) {
  switch (form.type) {
    case Form::Type::kBool:
      return std::is_same_v<T, bool>;
    case Form::Type::kInteger:
    case Form::Type::kWord:
      if constexpr (std::is_enum_v<T> || (std::is_integral_v<T> && !std::is_same_v<T, bool>)) {
        return form.type == Form::Type::kWord ||
               form.high <=
                   static_cast<double>(std::numeric_limits<typename Integer<T>::type>::max());
      }
      return false;
    case Form::Type::kNumber:
    case Form::Type::kSeconds:
      return std::is_floating_point_v<T>;
    case Form::Type::kText:
    case Form::Type::kName:
      return std::is_base_of_v<Kiv::Text, T>;
  }
  return false;
}

template <class F>
struct Mutator;
template <class Owner_, class Parameter>
struct Mutator<void (Owner_::*)(Parameter)> {
  using Owner = Owner_;
  using Value = std::remove_cvref_t<Parameter>;
};

template <class Child>
using KeyOf = std::remove_cvref_t<decltype(std::declval<const Child&>().fwkKey())>;

}  // namespace detail

// A scalar that reaches its entity by this mutator.
template <auto Is>
consteval ScalarRow scalar(std::string_view name, const Form& form, std::string_view about) {
  using Mutator = detail::Mutator<decltype(Is)>;
  if (!detail::takes<typename Mutator::Value>(form)) throw "the attribute has another type";
  const auto write = [](Kiv::PtrInterface& entity, const Scalar& value) {
    (static_cast<typename Mutator::Owner&>(entity).*Is)(detail::to<typename Mutator::Value>(value));
  };
  return {name, form, about, write};
}

// Writes what is given to an entity, before it is added to its owner.
inline void writeAll(Kiv::PtrInterface& entity, const Kind& kind, const Values& values) {
  for (size_t i = 0; i < values.size(); ++i) {
    if (values[i].index() != 0) kind.scalars[i].write(entity, values[i]);
  }
}

// A collection of entities that have scalars and nothing else, or only a key, and reach their owner
// by these mutators. An entity is filled before it is added.
template <class Owner, class Child, Kiv::Ptr<Child> (Owner::*Is)(const Kiv::Ptr<Child>&),
          Kiv::Ptr<Child> (Owner::*Del)(const detail::KeyOf<Child>&)>
consteval CollectionRow things(std::string_view name, std::string_view what, const Kind& of,
                               std::string_view about) {
  using Key = detail::KeyOf<Child>;
  CollectionRow made{name, what, about, &of};
  made.isGeneric = true;
  made.add = [](const CollectionRow& row, Kiv::PtrInterface& owner, std::string_view key,
                const Values& values) {
    const auto child = Kiv::make<Child>(Key(key));
    writeAll(*child, *row.of, values);
    (static_cast<Owner&>(owner).*Is)(child);
  };
  made.remove = [](Kiv::PtrInterface& owner, std::string_view key) {
    (static_cast<Owner&>(owner).*Del)(Key(key));
  };
  return made;
}

// What has a key and nothing else.
inline constexpr Kind kNamed{"a member without attributes"};

}  // namespace vnagent
