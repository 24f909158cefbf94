// Kiv::GenericIf: the reflection service. Through it tools read the attributes of any machine or
// entity, walk its collections, make a machine from constructor arguments and call its handlers by
// name, without knowing its class.
//
//   const GenericIf* description = object->genericIf();
//   for (const KivAttr& attribute : description->attributes()) {
//     if (attribute.kind != KivAttrKind::plain) continue;
//     std::cout << attribute.name << ": " << description->read(*object, attribute.name).text();
//   }
//
// Operations, by their numbers:
//
//   plain attribute   0 read, 1 write (where there is a mutator)
//   handler           8 call, with the key as argument where the handler takes one
//   collection        0 look up a key, 1 create or update a member from its arguments, 2 delete a
//                     key and return the member, 3 number of members, 4 number of buckets, 5
//                     whether a key is present
//
// An index that the class does not have is left to the base type: `notHandled` is set. A known one
// with an operation that it lacks throws UnsupportedOperationException; arguments of other types or
// in other number throw a range exception. Activity thread only.
#pragma once

#include <initializer_list>
#include <iterator>
#include <memory>
#include <span>
#include <vector>

#include "framework/GenericValue.h"
#include "framework/KivAttr.h"

namespace [[gnu::visibility("default")]] Kiv {

// The arguments of an operation, in order, to build them in.
using GenericArguments = std::vector<GenericValue>;

// A view of such arguments, or of any other contiguous values; those that are written in braces
// live until the end of the call.
class GenericArgumentsView : public std::span<const GenericValue> {
 public:
  using std::span<const GenericValue>::span;
  GenericArgumentsView() = default;
  // The values in braces, borrowed: valid until the end of the full expression that has them.
  GenericArgumentsView(std::initializer_list<GenericValue> values)
      : span(std::data(values), values.size()) {}
};

// A known attribute does not have the operation that was asked of it.
class UnsupportedOperationException final : public Exception {
 public:
  using Exception::Exception;
};

// What to do with which attribute.
struct GenericOp {
  U16 attribute;  // its index
  U8 operation;   // by its number, as below

  // The operations of plain attributes and of handlers.
  static constexpr U8 kRead = 0, kWrite = 1, kCall = 8;
  // The operations of collections.
  static constexpr U8 kLookup = 0, kCreate = 1, kDelete = 2, kSize = 3, kBuckets = 4, kContains = 5;
};

// One argument of a machine's constructor.
struct GenericCtorArg {
  std::string_view name;      // as the constructor names it
  std::string_view typeName;  // of its type
};

// A position in a collection attribute. As with the iterators of the collections, the current
// member or others may be deleted meanwhile. Holds the object. At the end, iterKey(), iterObj() and
// iterDel() throw a range exception, and iterInc() does nothing.
class GenericIterator {
 public:
  virtual ~GenericIterator() = default;
  // True while a member is current.
  virtual bool iterNonnull() const = 0;
  // The current key.
  virtual GenericValue iterKey() const = 0;
  // The current member, or in a value set its value.
  virtual GenericValue iterObj() const = 0;
  // Goes to the next member.
  virtual void iterInc() = 0;
  // Deletes the current member through its collection; iterInc() then advances to the next. Throws
  // UnsupportedOperationException where the collection cannot be changed.
  virtual void iterDel() = 0;
};

// The description of one class. There is one for each class, of static storage.
class GenericIf {
 public:
  GenericIf() = default;
  GenericIf(const GenericIf&) = delete;
  GenericIf& operator=(const GenericIf&) = delete;
  virtual ~GenericIf() = default;

  // The class's type name.
  virtual std::string_view typeName() const = 0;
  // Its attributes, in the order of their declaration.
  virtual std::span<const KivAttr> attributes() const = 0;
  // The attribute with this name or index; null when there is none.
  const KivAttr* attribute(std::string_view name) const;
  const KivAttr* attribute(U16 index) const;

  // Runs one operation on an object of the class. `isConst` says that the object may not be
  // changed.
  virtual void genericIfAttributeOp(PtrInterface& object, bool isConst, GenericOp op,
                                    GenericArgumentsView arguments, GenericValue& result,
                                    bool& notHandled) const = 0;

  // An iterator over a collection attribute, from its start. Throws UnsupportedOperationException
  // for what is no collection, and a range exception for an index that the class does not have.
  virtual std::unique_ptr<GenericIterator> genericIfIterator(PtrInterface& object, bool isConst,
                                                             U16 attribute) const = 0;
  // The same, from a key; at the end when the key is absent.
  virtual std::unique_ptr<GenericIterator> genericIfIteratorKey(PtrInterface& object, bool isConst,
                                                                U16 attribute,
                                                                const GenericValue& key) const = 0;
  // The same; a const object is not changed through the iterator.
  std::unique_ptr<GenericIterator> genericIfIterator(PtrInterface& object, U16 attribute) const;
  std::unique_ptr<GenericIterator> genericIfIterator(const PtrInterface& object,
                                                     U16 attribute) const;
  std::unique_ptr<GenericIterator> genericIfIteratorKey(PtrInterface& object, U16 attribute,
                                                        const GenericValue& key) const;
  std::unique_ptr<GenericIterator> genericIfIteratorKey(const PtrInterface& object, U16 attribute,
                                                        const GenericValue& key) const;

  // The arguments of the constructor; none for a class that tools cannot make.
  virtual std::span<const GenericCtorArg> constructorArguments() const = 0;
  // A new object, made from them. Throws UnsupportedOperationException where tools cannot make one.
  virtual GenericValue genericIfFromCtorArgs(GenericArgumentsView arguments) const = 0;

  // Reads a plain attribute of an object by name. Throws a range exception for an unknown name.
  GenericValue read(const PtrInterface& object, std::string_view name) const;
  // Iterates a collection of an object by name, without changing it.
  std::unique_ptr<GenericIterator> iterate(const PtrInterface& object, std::string_view name) const;
};

}  // namespace Kiv
