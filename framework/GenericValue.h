// Kiv::GenericValue: a value of any reflected type, as tools handle it.
//
//   GenericValue value = GenericValue::of(Kiv::Name("RegionOne"));
//   value.typeName();              // "Kiv::Name"
//   value.as<Kiv::Name>();         // the value
//   value.text();                  // "RegionOne"
//
// A type takes part by a specialisation of ValueTraits; the framework has those of its own types,
// integers and pointers to objects. Activity thread only where it holds an object.
#pragma once

#include <any>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>

#include "framework/Ptr.h"
#include "framework/Text.h"
#include "framework/Time.h"

namespace [[gnu::visibility("default")]] Kiv {

// What the generic value must know of type T:
//   static constexpr std::string_view kTypeName;           the type's name
//   static constexpr ValueForm kForm;                      how it is written in a document
//   static std::string text(const T&);                     the value as text, for people
//   static std::optional<T> parse(std::string_view text);  from that text; none when it is not one
template <class T>
struct ValueTraits;

// How a generic value is best written in a document.
enum class ValueForm : U8 { nothing, boolean, number, text, object };

class GenericValue {
 public:
  // No value: what an operation without a result returns.
  GenericValue() = default;

  // Wraps a value. Objects are wrapped as Ptr, whatever their class.
  template <class T>
  static GenericValue of(T value) {
    using Traits = ValueTraits<T>;
    GenericValue wrapped;
    wrapped.typeName_ = Traits::kTypeName;
    wrapped.form_ = Traits::kForm;
    if constexpr (Traits::kForm == ValueForm::object) {
      using Object = typename T::element_type;
      wrapped.constant_ = std::is_const_v<Object>;
      wrapped.object_ = value;
      if (value) wrapped.typeName_ = value->fwkType().name();
    } else {
      wrapped.text_ = Traits::text(value);
      wrapped.value_ = std::move(value);
    }
    return wrapped;
  }

  bool empty() const { return form_ == ValueForm::nothing; }
  std::string_view typeName() const { return typeName_; }
  // How tools write the value.
  ValueForm form() const { return form_; }
  // The value as text; an object by its type's name and its address.
  std::string text() const { return form_ == ValueForm::object ? objectText() : text_; }
  // The wrapped object; null when it is none.
  const Ptr<const PtrInterface>& object() const { return object_; }
  // The same, to be changed; null also when it was wrapped as a constant object.
  Ptr<PtrInterface> changeable() const {
    return constant_ ? nullptr : Ptr<PtrInterface>(const_cast<PtrInterface*>(object_.get()));
  }

  // The value as a T. A text is parsed as any type that has a parser. Throws a range exception
  // when it is of another type, also when it is null; a pointer to a constant object is no pointer
  // to a changeable one.
  template <class T>
  T as() const {
    if constexpr (ValueTraits<T>::kForm == ValueForm::object) {
      return objectAs<typename T::element_type>();
    } else {
      if (const T* value = std::any_cast<T>(&value_)) return *value;
      if (form_ == ValueForm::text || form_ == ValueForm::number) {
        if (std::optional<T> parsed = ValueTraits<T>::parse(text_)) return *std::move(parsed);
      }
      throwOther(ValueTraits<T>::kTypeName);
    }
  }

 private:
  template <class Object>
  Ptr<Object> objectAs() const {
    using Plain = std::remove_const_t<Object>;
    if (form_ != ValueForm::object || typeName_ != Plain::kTypeName) throwOther(Plain::kTypeName);
    if (!object_) return nullptr;
    if constexpr (!std::is_const_v<Object>) {
      if (constant_) throwOther(Plain::kTypeName);
    }
    return Ptr<Object>(static_cast<Object*>(const_cast<PtrInterface*>(object_.get())));
  }
  std::string objectText() const;
  [[noreturn]] void throwOther(std::string_view wanted) const;

  std::string_view typeName_;
  ValueForm form_ = ValueForm::nothing;
  bool constant_ = false;
  std::string text_;
  std::any value_;
  Ptr<const PtrInterface> object_;
};

// The form and text of a type that can be streamed.
template <class T, ValueForm Form>
struct StreamedTraits {
  static constexpr ValueForm kForm = Form;
  static std::string text(const T& value) {
    std::ostringstream stream;
    stream << value;
    return std::move(stream).str();
  }
};

template <>
struct ValueTraits<bool> {
  static constexpr std::string_view kTypeName = "bool";
  static constexpr ValueForm kForm = ValueForm::boolean;
  static std::string text(bool value) { return value ? "true" : "false"; }
  static std::optional<bool> parse(std::string_view text) {
    if (text == "true") return true;
    if (text == "false") return false;
    return std::nullopt;
  }
};

namespace detail {
// The number that the whole of `text` spells, in plain decimal and at most `most`.
std::optional<U64> parseNumber(std::string_view text, U64 most);
std::optional<Seconds> parseSeconds(std::string_view text);
std::string secondsText(Seconds seconds);
}  // namespace detail

// The form and text of an integer.
template <class T>
struct IntegerTraits {
  static constexpr ValueForm kForm = ValueForm::number;
  static std::string text(T value) { return std::to_string(value); }
  static std::optional<T> parse(std::string_view text) {
    const auto number = detail::parseNumber(text, T(~T{0}));
    return number ? std::optional(static_cast<T>(*number)) : std::nullopt;
  }
};

template <>
struct ValueTraits<U8> : IntegerTraits<U8> {
  static constexpr std::string_view kTypeName = "U8";
};
template <>
struct ValueTraits<U16> : IntegerTraits<U16> {
  static constexpr std::string_view kTypeName = "U16";
};
template <>
struct ValueTraits<U32> : IntegerTraits<U32> {
  static constexpr std::string_view kTypeName = "U32";
};
template <>
struct ValueTraits<U64> : IntegerTraits<U64> {
  static constexpr std::string_view kTypeName = "U64";
};

template <>
struct ValueTraits<Seconds> {
  static constexpr std::string_view kTypeName = "Kiv::Seconds";
  static constexpr ValueForm kForm = ValueForm::number;
  static std::string text(Seconds value) { return detail::secondsText(value); }
  static std::optional<Seconds> parse(std::string_view text) { return detail::parseSeconds(text); }
};

// The form and text of a string.
template <class T>
struct TextTraits {
  static constexpr ValueForm kForm = ValueForm::text;
  static std::string text(const T& value) { return value.str(); }
  static std::optional<T> parse(std::string_view text) { return T(text); }
};
template <>
struct ValueTraits<Name> : TextTraits<Name> {
  static constexpr std::string_view kTypeName = "Kiv::Name";
};
template <>
struct ValueTraits<String> : TextTraits<String> {
  static constexpr std::string_view kTypeName = "Kiv::String";
};

template <class T>
struct ValueTraits<Ptr<T>> {
  static constexpr std::string_view kTypeName = T::kTypeName;
  static constexpr ValueForm kForm = ValueForm::object;
};

}  // namespace Kiv
