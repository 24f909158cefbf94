// Attribute tables: one for each machine or entity class, with the index, name, key and accessors
// of each attribute. It is the only such list: traces, exception texts, the check of an existing
// child, reflection and tools all read it.
//
//   static constexpr auto kAttributes = Kiv::attributes(
//       Kiv::keyArgument(130, "regionName", &RegionConfigSm::regionName),
//       Kiv::fixedArgument(131, "regionConfig", &RegionConfigSm::regionConfig),
//       Kiv::changingArgument(134, "regionSyncTimeout", &RegionConfigSm::regionSyncTimeout,
//                             &RegionConfigSm::regionSyncTimeoutIs),
//       Kiv::collection(138, "segment", "id", &RegionConfigSm::segment_,
//                       &RegionConfigSm::segmentIs,
//                       Kiv::byKey<String>(&RegionConfigSm::segmentDel)),
//       Kiv::handler(147, "handleHeartbeat", "void ...::handleHeartbeat()",
//                    &RegionConfigSm::handleHeartbeat),
//       Kiv::plain(151, "initialized", &RegionConfigSm::initialized,
//                  &RegionConfigSm::initializedIs));
//
// The constructor's arguments are listed in its order. The key of a collection has the name that
// its members give it, and none where they do not know it. An entity's table leaves out the
// indices; its attributes are numbered in order.
#pragma once

#include <concepts>
#include <tuple>
#include <vector>

#include "framework/GenericIf.h"
#include "framework/HashMap2018.h"
#include "framework/Trace.h"

namespace [[gnu::visibility("default")]] Kiv {

namespace detail {

[[noreturn]] void throwUnsupported(const KivAttr& attribute, unsigned operation);
void requireArguments(const KivAttr& attribute, std::size_t given, std::size_t wanted);
[[noreturn]] void throwAtEnd(const KivAttr& attribute);

// Calls `call` with the arguments unwrapped to the plain types of Parameters.
template <class... Parameters, class Call>
decltype(auto) unwrapped(const KivAttr& attribute, GenericArgumentsView arguments, Call call) {
  requireArguments(attribute, arguments.size(), sizeof...(Parameters));
  return [&]<std::size_t... I>(std::index_sequence<I...>)->decltype(auto) {
    return call(arguments[I].template as<std::remove_cvref_t<Parameters>>()...);
  }
  (std::index_sequence_for<Parameters...>());
}

template <class R, class M, class... Parameters>
GenericValue call(const KivAttr& attribute, std::type_identity_t<M>& object,
                  R (M::*function)(Parameters...), GenericArgumentsView arguments) {
  return unwrapped<Parameters...>(attribute, arguments, [&](const auto&... values) {
    if constexpr (std::is_void_v<R>) {
      (object.*function)(values...);
      return GenericValue();
    } else {
      return GenericValue::of((object.*function)(values...));
    }
  });
}

// What a member function returns, as a value.
template <class>
struct ReturnedBy;
template <class R, class C, class... Parameters>
struct ReturnedBy<R (C::*)(Parameters...) const> {
  using Type = std::remove_cvref_t<R>;
};
template <class Function>
using Returned = typename ReturnedBy<Function>::Type;

// The name of the type of the key that a handler takes; empty for one that takes none.
template <class C>
std::string_view keyTypeOf(void (C::*)()) {
  return {};
}
template <class C, class Key>
std::string_view keyTypeOf(void (C::*)(Key)) {
  return ValueTraits<std::remove_cvref_t<Key>>::kTypeName;
}
inline std::string_view keyTypeOf(std::nullptr_t) {
  return {};
}

}  // namespace detail

}  // namespace Kiv

// These templates are not exported by the library: each binary instantiates them for its tables.
namespace Kiv {

// Whether an attribute is an argument of its machine's constructor, and what happens to it when the
// owner is asked for an existing machine with other arguments: it is none; it is the key, which is
// not compared; it must be the same; it is written into the existing machine.
enum class ArgumentRole : U8 { none, key, fixed, changing };

// A plain attribute. Get reads it from a const object; Set, where there is one, writes it.
template <class Get, class Set = std::nullptr_t, ArgumentRole Role = ArgumentRole::none>
struct PlainAttribute {
  KivAttr attr;       // what it is
  Get get;            // the member function that reads it
  Set set = nullptr;  // the one that writes it, if any

  // Fills in the types, and whether it can be written.
  void describe(KivAttr& described) const {
    described.type = ValueTraits<detail::Returned<Get>>::kTypeName;
    described.writable = !std::is_null_pointer_v<Set>;
  }

  // Runs one operation on an object of the class; throws where it has none such.
  template <class T>
  GenericValue operate(T& object, bool isConst, U8 operation,
                       GenericArgumentsView arguments) const {
    if (operation == GenericOp::kRead) {
      detail::requireArguments(attr, arguments.size(), 0);
      return GenericValue::of(detail::Returned<Get>((std::as_const(object).*get)()));
    }
    if constexpr (!std::is_null_pointer_v<Set>) {
      if (operation == GenericOp::kWrite && !isConst) {
        return detail::call(attr, object, set, arguments);
      }
    }
    detail::throwUnsupported(attr, operation);
  }

  template <class T>
  std::unique_ptr<GenericIterator> iterator(T&, bool, const GenericValue*) const {
    detail::throwUnsupported(attr, GenericOp::kRead);
  }
};

// A handler.
template <class Call>
struct HandlerAttribute {
  KivAttr attr;   // what it is
  Call function;  // the member function

  // Fills in the types, and whether it can be written.
  void describe(KivAttr& described) const { described.keyType = detail::keyTypeOf(function); }

  // Runs one operation on an object of the class; throws where it has none such.
  template <class T>
  GenericValue operate(T& object, bool isConst, U8 operation,
                       GenericArgumentsView arguments) const {
    if (operation != GenericOp::kCall || isConst) detail::throwUnsupported(attr, operation);
    if constexpr (std::is_null_pointer_v<Call>) {
      detail::throwUnsupported(attr, operation);
    } else {
      return detail::call(attr, object, function, arguments);
    }
  }

  template <class T>
  std::unique_ptr<GenericIterator> iterator(T&, bool, const GenericValue*) const {
    detail::throwUnsupported(attr, GenericOp::kRead);
  }
};

// A collection: Map is a pointer to the member of class C that holds it. Create and Delete, where
// there are any, are the mutators of its owner.
template <class C, class Map, class Create = std::nullptr_t, class Delete = std::nullptr_t>
struct CollectionAttribute {
  KivAttr attr;             // what it is
  Map C::*map;              // the collection
  Create create = nullptr;  // the mutator that makes a member, if any
  Delete del = nullptr;     // the one that deletes it, if any

  using Key = typename Map::Key;
  // Whether members can be made and deleted.
  static constexpr bool kWritable =
      !std::is_null_pointer_v<Create> && !std::is_null_pointer_v<Delete>;

  // Fills in the types, and whether it can be written.
  void describe(KivAttr& described) const {
    described.type = memberType();
    described.keyType = ValueTraits<Key>::kTypeName;
    described.writable = kWritable;
  }

  // Runs one operation on an object of the class; throws where it has none such.
  template <class T>
  GenericValue operate(T& object, bool isConst, U8 operation,
                       GenericArgumentsView arguments) const {
    C& owner = object;
    const auto key = [&] {
      detail::requireArguments(attr, arguments.size(), 1);
      return arguments[0].as<Key>();
    };
    switch (operation) {
      case GenericOp::kLookup:
        return lookup(owner, key(), isConst);
      case GenericOp::kSize:
        detail::requireArguments(attr, arguments.size(), 0);
        return GenericValue::of(U64{(owner.*map).size()});
      case GenericOp::kBuckets:
        detail::requireArguments(attr, arguments.size(), 0);
        return GenericValue::of(U64{(owner.*map).buckets()});
      case GenericOp::kContains:
        return GenericValue::of((owner.*map).contains(key()));
      default:
        break;
    }
    if constexpr (!std::is_null_pointer_v<Create>) {
      if (operation == GenericOp::kCreate && !isConst) {
        return detail::call(attr, object, create, arguments);
      }
    }
    if constexpr (!std::is_null_pointer_v<Delete>) {
      if (operation == GenericOp::kDelete && !isConst) {
        return detail::call(attr, object, del, arguments);
      }
    }
    detail::throwUnsupported(attr, operation);
  }

  template <class T>
  std::unique_ptr<GenericIterator> iterator(T& object, bool isConst,
                                            const GenericValue* key) const {
    return std::make_unique<Iterator<T>>(*this, object, isConst, key);
  }

 private:
  using At = decltype((std::declval<C&>().*std::declval<Map C::*>()).begin());
  // Whether its members are objects that it holds, and not values or references by key.
  static constexpr bool kHoldsMembers = requires(const At& at) { at.key(); };

  static std::string_view memberType() {
    if constexpr (kHoldsMembers) {
      return Map::Value::kTypeName;
    } else {
      return ValueTraits<std::remove_cvref_t<decltype(std::declval<At>()->value)>>::kTypeName;
    }
  }

  GenericValue lookup(C& owner, const Key& key, bool isConst) const {
    if constexpr (kHoldsMembers) {
      auto* member = (owner.*map)[key];
      using Value = std::remove_reference_t<decltype(*member)>;
      if (isConst) return GenericValue::of(Ptr<const Value>(member));
      return GenericValue::of(Ptr<Value>(member));
    } else {
      return GenericValue::of((owner.*map)[key]);
    }
  }

  template <class T>
  class Iterator final : public GenericIterator {
   public:
    Iterator(const CollectionAttribute& attribute, T& object, bool isConst, const GenericValue* key)
        : attribute_(attribute), object_(&object), isConst_(isConst) {
      C& owner = object;
      at_ = key == nullptr ? (owner.*attribute.map).begin()
                           : (owner.*attribute.map).iteratorAt(key->as<Key>());
    }

    bool iterNonnull() const override { return !(at_ == std::default_sentinel); }
    GenericValue iterKey() const override {
      requireMember();
      if constexpr (kHoldsMembers) {
        return GenericValue::of(at_.key());
      } else {
        return GenericValue::of(at_->key);
      }
    }
    GenericValue iterObj() const override {
      requireMember();
      if constexpr (kHoldsMembers) {
        using Value = typename Map::Value;
        if (isConst_) return GenericValue::of(Ptr<const Value>(*at_));
        return GenericValue::of(Ptr<Value>(*at_));
      } else {
        return GenericValue::of(at_->value);
      }
    }
    void iterInc() override {
      if (iterNonnull()) ++at_;
    }
    void iterDel() override {
      if constexpr (std::is_null_pointer_v<Delete>) {
        detail::throwUnsupported(attribute_.attr, GenericOp::kDelete);
      } else {
        if (isConst_) detail::throwUnsupported(attribute_.attr, GenericOp::kDelete);
        const GenericValue key = iterKey();
        attribute_.operate(*object_, false, GenericOp::kDelete, {&key, 1});
      }
    }

   private:
    void requireMember() const {
      if (!iterNonnull()) detail::throwAtEnd(attribute_.attr);
    }

    CollectionAttribute attribute_;
    Ptr<T> object_;
    bool isConst_;
    At at_;
  };
};

// Makes the entry of a plain attribute. Without an index, it is numbered by the table.
template <class Get, class Set = std::nullptr_t>
constexpr PlainAttribute<Get, Set> plain(U16 index, std::string_view name, Get get,
                                         Set set = nullptr) {
  return {{index, KivAttrKind::plain, name, "", "", ""}, get, set};
}
template <class Get>
constexpr PlainAttribute<Get> plain(std::string_view name, Get get) {
  return plain(U16{0}, name, get);
}
// Makes the entry of a plain attribute that is an argument of the constructor too, there under the
// same name or another: here the key.
template <class Get>
constexpr PlainAttribute<Get, std::nullptr_t, ArgumentRole::key> keyArgument(
    U16 index, std::string_view name, Get get, std::string_view argument = {}) {
  return {{index, KivAttrKind::plain, name, "", "", argument.empty() ? name : argument}, get};
}
// As above: an argument that an existing machine must have been made with.
template <class Get>
constexpr PlainAttribute<Get, std::nullptr_t, ArgumentRole::fixed> fixedArgument(
    U16 index, std::string_view name, Get get) {
  return {{index, KivAttrKind::plain, name, "", "", name}, get};
}
// As above: an argument that is written into an existing machine.
template <class Get, class Set>
constexpr PlainAttribute<Get, Set, ArgumentRole::changing> changingArgument(U16 index,
                                                                            std::string_view name,
                                                                            Get get, Set set) {
  return {{index, KivAttrKind::plain, name, "", "", name}, get, set};
}
// Makes the entry of a handler.
template <class Call>
constexpr HandlerAttribute<Call> handler(U16 index, std::string_view name,
                                         std::string_view signature, Call function) {
  return {{index, KivAttrKind::handler, name, "", signature, ""}, function};
}
// Makes the entry of a collection. Without an index, it is numbered by the table.
template <class C, class Map, class Create = std::nullptr_t, class Delete = std::nullptr_t>
constexpr CollectionAttribute<C, Map, Create, Delete> collection(U16 index, std::string_view name,
                                                                 std::string_view key, Map C::*map,
                                                                 Create create = nullptr,
                                                                 Delete del = nullptr) {
  return {{index, KivAttrKind::collection, name, key, "", ""}, map, create, del};
}
template <class C, class Map>
constexpr CollectionAttribute<C, Map> collection(std::string_view name, std::string_view key,
                                                 Map C::*map) {
  return collection(U16{0}, name, key, map);
}
// The handler of a nested reactor: known to traces, not reached from the machine.
constexpr HandlerAttribute<std::nullptr_t> reactorHandler(std::string_view name,
                                                          std::string_view signature) {
  return {{0, KivAttrKind::handler, name, "", signature, ""}, nullptr};
}
// Of an accessor's overloads, the one for a const object.
template <class R, class C>
constexpr auto reader(R (C::*function)() const) {
  return function;
}
// Of a mutator's overloads, the one that takes the key.
template <class K, class R, class C>
constexpr auto byKey(R (C::*function)(const K&)) {
  return function;
}

// The table of one class.
template <class... Attributes>
struct AttributeTable {
  std::tuple<Attributes...> entries;  // in the order of their declaration

  // The index at which the attributes of every class start.
  static constexpr U16 kFirstIndex = 130;

  // The source of a handler's trace lines, for a constant expression: there, a name that is not in
  // the table does not compile.
  constexpr TraceSource handler(std::string_view file, std::string_view name) const {
    TraceSource source;
    const auto look = [&](const KivAttr& attr) {
      if (attr.name == name && !attr.signature.empty()) {
        source = {file, attr.name.substr(attr.name.rfind(':') + 1), attr.signature};
      }
    };
    std::apply([&](const auto&... each) { (look(each.attr), ...); }, entries);
    if (source.signature.empty()) throw "no such handler";
    return source;
  }

  // The entries that are arguments of the constructor, in its order.
  constexpr auto arguments() const {
    return std::apply([](const auto&... each) { return std::tuple_cat(argument(each)...); },
                      entries);
  }

  // The name of the collection `map`, which is a member of `object`; empty when it is not in the
  // table.
  template <class T, class Map>
  std::string_view nameOf(const T& object, const Map& map) const {
    std::string_view name;
    const auto look = [&](const auto& each) {
      if constexpr (requires { requires std::same_as<decltype(object.*each.map), const Map&>; }) {
        if (&(object.*each.map) == &map) name = each.attr.name;
      }
    };
    std::apply([&](const auto&... each) { (look(each), ...); }, entries);
    return name;
  }

 private:
  template <class Get, class Set, ArgumentRole Role>
  static constexpr auto argument(const PlainAttribute<Get, Set, Role>& attribute) {
    if constexpr (Role == ArgumentRole::none) {
      return std::tuple<>();
    } else {
      return std::tuple(attribute);
    }
  }
  template <class Attribute>
  static constexpr std::tuple<> argument(const Attribute&) {
    return {};
  }
};

// Makes a table.
template <class... Attributes>
constexpr AttributeTable<Attributes...> attributes(Attributes... each) {
  return {{each...}};
}
// A class's table behind that of its base.
template <class... A, class... B>
constexpr AttributeTable<A..., B...> attributes(const AttributeTable<A...>& base, B... each) {
  return {std::tuple_cat(base.entries, std::tuple<B...>(each...))};
}

// The reflection of class T, from its table. Maker, where tools can make a T, is the function that
// does; its parameters are what the table lists as arguments of the constructor.
template <class T, class Table, class Maker = std::nullptr_t>
class GenericIfOf final : public GenericIf {
 public:
  // Numbers the attributes that have no index yet, from the first on.
  explicit GenericIfOf(const Table& table, Maker maker = nullptr) : table_(table), maker_(maker) {
    U16 next = Table::kFirstIndex;
    const auto number = [&](auto& each) {
      if (each.attr.kind == KivAttrKind::handler && each.attr.index == 0) return;
      if (each.attr.index == 0) each.attr.index = next;
      next = static_cast<U16>(each.attr.index + 1);
      each.describe(each.attr);
      attributes_.push_back(each.attr);
    };
    std::apply([&](auto&... each) { (number(each), ...); }, table_.entries);
    if constexpr (!std::is_null_pointer_v<Maker>) collectArguments(maker);
  }

  std::string_view typeName() const override { return T::kTypeName; }
  std::span<const KivAttr> attributes() const override { return attributes_; }
  std::span<const GenericCtorArg> constructorArguments() const override { return arguments_; }

  void genericIfAttributeOp(PtrInterface& object, bool isConst, GenericOp op,
                            GenericArgumentsView arguments, GenericValue& result,
                            bool& notHandled) const override {
    notHandled = !at(op.attribute, [&](const auto& attribute) {
      result = attribute.operate(own(object), isConst, op.operation, arguments);
    });
  }

  using GenericIf::genericIfIterator;
  using GenericIf::genericIfIteratorKey;
  std::unique_ptr<GenericIterator> genericIfIterator(PtrInterface& object, bool isConst,
                                                     U16 attribute) const override {
    return iterator(object, isConst, attribute, nullptr);
  }
  std::unique_ptr<GenericIterator> genericIfIteratorKey(PtrInterface& object, bool isConst,
                                                        U16 attribute,
                                                        const GenericValue& key) const override {
    return iterator(object, isConst, attribute, &key);
  }

  GenericValue genericIfFromCtorArgs(GenericArgumentsView arguments) const override {
    if constexpr (std::is_null_pointer_v<Maker>) {
      throw UnsupportedOperationException(std::string(T::kTypeName).append(" cannot be made"));
    } else {
      return make(maker_, arguments);
    }
  }

 private:
  static T& own(PtrInterface& object) {
    if (!(object.fwkType() == typeRecord<T>)) {
      throwRangeException(std::string("a ").append(T::kTypeName).append(" is wanted"));
    }
    return static_cast<T&>(object);
  }

  // Calls `use` with the attribute of this index; returns whether there is one.
  template <class Use>
  bool at(U16 index, Use use) const {
    const auto one = [&](const auto& each) {
      if (each.attr.index != index || index == 0) return false;
      use(each);
      return true;
    };
    return std::apply([&](const auto&... each) { return (one(each) || ...); }, table_.entries);
  }

  std::unique_ptr<GenericIterator> iterator(PtrInterface& object, bool isConst, U16 attribute,
                                            const GenericValue* key) const {
    std::unique_ptr<GenericIterator> made;
    const bool known =
        at(attribute, [&](const auto& each) { made = each.iterator(own(object), isConst, key); });
    if (!known) throwRangeException(std::string(T::kTypeName).append(" has no such attribute"));
    return made;
  }

  template <class R, class... Parameters>
  void collectArguments(R (*)(Parameters...)) {
    const auto collect = [&](const auto&... each) {
      static_assert(sizeof...(each) == sizeof...(Parameters), "the table has not all arguments");
      (arguments_.push_back(
           {each.attr.argument, ValueTraits<std::remove_cvref_t<Parameters>>::kTypeName}),
       ...);
    };
    std::apply(collect, table_.arguments());
  }
  template <class R, class... Parameters>
  GenericValue make(R (*maker)(Parameters...), GenericArgumentsView arguments) const {
    const KivAttr constructor{0, KivAttrKind::handler, T::kTypeName, "", "", ""};
    return detail::unwrapped<Parameters...>(constructor, arguments, [&](const auto&... values) {
      return GenericValue::of(maker(values...));
    });
  }

  Table table_;
  Maker maker_;
  std::vector<KivAttr> attributes_;
  std::vector<GenericCtorArg> arguments_;
};

// Makes the reflection of class T, without a maker or with one.
template <class T, class Table>
GenericIfOf<T, Table> describe(const Table& table) {
  return GenericIfOf<T, Table>(table);
}
template <class T, class Table, class Maker>
GenericIfOf<T, Table, Maker> describe(const Table& table, Maker maker) {
  return GenericIfOf<T, Table, Maker>(table, maker);
}

}  // namespace Kiv
