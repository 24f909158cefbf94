#include "framework/GenericIf.h"

#include "framework/Attributes.h"

namespace [[gnu::visibility("default")]] Kiv {

const KivAttr* GenericIf::attribute(std::string_view name) const {
  for (const KivAttr& attribute : attributes()) {
    if (attribute.name == name) return &attribute;
  }
  return nullptr;
}

const KivAttr* GenericIf::attribute(U16 index) const {
  for (const KivAttr& attribute : attributes()) {
    if (attribute.index == index) return &attribute;
  }
  return nullptr;
}

namespace {

const KivAttr& named(const GenericIf& description, std::string_view name) {
  const KivAttr* attribute = description.attribute(name);
  if (attribute != nullptr) return *attribute;
  throwRangeException(
      std::string(description.typeName()).append(" has no attribute ").append(name));
}

}  // namespace

GenericValue GenericIf::read(const PtrInterface& object, std::string_view name) const {
  GenericValue result;
  bool notHandled = false;
  genericIfAttributeOp(const_cast<PtrInterface&>(object), true,
                       {named(*this, name).index, GenericOp::kRead}, {}, result, notHandled);
  return result;
}

std::unique_ptr<GenericIterator> GenericIf::iterate(const PtrInterface& object,
                                                    std::string_view name) const {
  return genericIfIterator(object, named(*this, name).index);
}

std::unique_ptr<GenericIterator> GenericIf::genericIfIterator(PtrInterface& object,
                                                              U16 attribute) const {
  return genericIfIterator(object, false, attribute);
}
std::unique_ptr<GenericIterator> GenericIf::genericIfIterator(const PtrInterface& object,
                                                              U16 attribute) const {
  return genericIfIterator(const_cast<PtrInterface&>(object), true, attribute);
}
std::unique_ptr<GenericIterator> GenericIf::genericIfIteratorKey(PtrInterface& object,
                                                                 U16 attribute,
                                                                 const GenericValue& key) const {
  return genericIfIteratorKey(object, false, attribute, key);
}
std::unique_ptr<GenericIterator> GenericIf::genericIfIteratorKey(const PtrInterface& object,
                                                                 U16 attribute,
                                                                 const GenericValue& key) const {
  return genericIfIteratorKey(const_cast<PtrInterface&>(object), true, attribute, key);
}

namespace detail {

void throwUnsupported(const KivAttr& attribute, unsigned operation) {
  throw UnsupportedOperationException(std::string("operation ")
                                          .append(std::to_string(operation))
                                          .append(" is not supported by attribute ")
                                          .append(attribute.name));
}

void requireArguments(const KivAttr& attribute, std::size_t given, std::size_t wanted) {
  if (given == wanted) return;
  throwRangeException(std::string(attribute.name)
                          .append(" takes ")
                          .append(std::to_string(wanted))
                          .append(" arguments, not ")
                          .append(std::to_string(given)));
}

void throwAtEnd(const KivAttr& attribute) {
  throwRangeException(
      std::string("the iterator of ").append(attribute.name).append(" is at its end"));
}

}  // namespace detail
}  // namespace Kiv
