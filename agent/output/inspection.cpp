#include "agent/output/inspection.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <vector>

#include "framework/GenericIf.h"

namespace vnagent {
namespace {

using Kiv::GenericValue;
using Kiv::KivAttr;
using Kiv::KivAttrKind;
using Kiv::ValueForm;

struct Entry {
  GenericValue key;
  GenericValue value;
};

// Numbers by value, other keys by bytes.
bool before(const Entry& a, const Entry& b) {
  const std::string left = a.key.text();
  const std::string right = b.key.text();
  if (a.key.form() == ValueForm::number && left.size() != right.size()) {
    return left.size() < right.size();
  }
  return left < right;
}

std::vector<Entry> entriesOf(const Kiv::PtrInterface& object, const KivAttr& attribute) {
  std::vector<Entry> entries;
  const auto at = object.genericIf()->iterate(object, attribute.name);
  for (; at->iterNonnull(); at->iterInc()) entries.push_back({at->iterKey(), at->iterObj()});
  std::ranges::sort(entries, before);
  return entries;
}

void writePlain(const GenericValue& value, JsonWriter& json) {
  const std::string text = value.text();
  switch (value.form()) {
    case ValueForm::boolean:
      json.boolean(text == "true");
      return;
    case ValueForm::number: {
      double number = 0;
      const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
      if (read.ec == std::errc() && number - number == 0) {
        json.number(number);
      } else {
        json.text(text);
      }
      return;
    }
    case ValueForm::nothing:
    case ValueForm::text:
    case ValueForm::object:
      json.text(text);
      return;
  }
}

// An object that another one refers to: its type alone.
void writeReference(const GenericValue& value, JsonWriter& json) {
  if (!value.object()) {
    json.null();
    return;
  }
  json.open('{').key("type").text(value.object()->fwkType().name()).close('}');
}

void writeValue(const GenericValue& value, JsonWriter& json) {
  if (value.form() == ValueForm::object) {
    writeReference(value, json);
  } else {
    writePlain(value, json);
  }
}

void writeObject(const Kiv::PtrInterface& object, JsonWriter& json) {
  json.open('{').key("type").text(object.fwkType().name());
  const Kiv::GenericIf* description = object.genericIf();
  if (description == nullptr) {
    json.close('}');
    return;
  }
  bool handlers = false;
  for (const KivAttr& attribute : description->attributes()) {
    handlers = handlers || attribute.kind == KivAttrKind::handler;
    if (attribute.kind == KivAttrKind::plain) {
      json.key(attribute.name);
      writeValue(description->read(object, attribute.name), json);
    } else if (attribute.kind == KivAttrKind::collection) {
      json.key(attribute.name).open('{');
      for (const Entry& entry : entriesOf(object, attribute)) {
        json.key(entry.key.text());
        writeValue(entry.value, json);
      }
      json.close('}');
    }
  }
  if (handlers) {
    json.key("handlers").open('[');
    for (const KivAttr& attribute : description->attributes()) {
      if (attribute.kind == KivAttrKind::handler) json.text(attribute.name);
    }
    json.close(']');
  }
  json.close('}');
}

void writeCollection(const Kiv::PtrInterface& object, const KivAttr& attribute, JsonWriter& json) {
  json.open('{');
  for (const Entry& entry : entriesOf(object, attribute)) {
    json.key(entry.key.text());
    if (entry.value.object()) {
      writeObject(*entry.value.object(), json);
    } else {
      writePlain(entry.value, json);
    }
  }
  json.close('}');
}

// The names of a path, unescaped; none when it is no path.
std::optional<std::vector<std::string>> namesOf(std::string_view path) {
  if (path.empty() || path.front() != '/') return std::nullopt;
  std::vector<std::string> names;
  for (size_t i = 0; i < path.size(); ++i) {
    if (path[i] == '/') {
      names.emplace_back();
    } else if (path[i] != '~') {
      names.back() += path[i];
    } else if (++i < path.size() && (path[i] == '0' || path[i] == '1')) {
      names.back() += path[i] == '0' ? '~' : '/';
    } else {
      return std::nullopt;
    }
  }
  return names;
}

// A walk along the names: at an object, at a collection of one, or at a plain value.
class Walk {
 public:
  explicit Walk(const Kiv::PtrInterface& root) : object_(&root) {}

  // Follows one more name; returns what is wrong if it leads nowhere.
  std::optional<std::string> step(const std::string& name) {
    if (collection_ != nullptr) return toMember(name);
    if (!value_.empty()) return fmt::format("a value has no attribute \"{}\"", name);
    const auto* description = object_->genericIf();
    const KivAttr* attribute =
        description ? description->attribute(std::string_view(name)) : nullptr;
    if (attribute == nullptr || attribute->kind == KivAttrKind::handler) {
      return fmt::format("{} has no attribute \"{}\"", object_->fwkType().name(), name);
    }
    if (attribute->kind == KivAttrKind::collection) {
      collection_ = attribute;
      return std::nullopt;
    }
    return to(description->read(*object_, name));
  }

  void write(JsonWriter& json) const {
    if (collection_ != nullptr) {
      writeCollection(*object_, *collection_, json);
    } else if (!value_.empty()) {
      writeValue(value_, json);
    } else {
      writeObject(*object_, json);
    }
  }

 private:
  std::optional<std::string> toMember(const std::string& key) {
    const auto at = object_->genericIf()->iterate(*object_, collection_->name);
    while (at->iterNonnull() && at->iterKey().text() != key) at->iterInc();
    if (!at->iterNonnull()) return fmt::format("{} holds no \"{}\"", collection_->name, key);
    collection_ = nullptr;
    return to(at->iterObj());
  }

  std::optional<std::string> to(const GenericValue& value) {
    if (value.object()) {
      object_ = value.object();
    } else {
      value_ = value;
    }
    return std::nullopt;
  }

  Kiv::Ptr<const Kiv::PtrInterface> object_;
  const KivAttr* collection_ = nullptr;
  GenericValue value_;
};

}  // namespace

std::optional<std::string> writeInspection(const Kiv::PtrInterface& root, std::string_view rootName,
                                           std::string_view path, JsonWriter& json) {
  const auto names = namesOf(path);
  if (!names) return "not a path (it begins with a slash; ~0 and ~1 are the escapes)";
  if (names->front() != rootName) {
    return fmt::format("there is no \"{}\"; paths begin with /{}", names->front(), rootName);
  }
  Walk walk(root);
  for (size_t i = 1; i < names->size(); ++i) {
    if (auto fault = walk.step((*names)[i])) return fault;
  }
  walk.write(json);
  return std::nullopt;
}

}  // namespace vnagent
