#include "agent/document/schema.h"

#include <algorithm>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "agent/document/kinds/document.h"

namespace vnagent {
namespace {

// "host-binding" for "a host binding".
std::string definitionOf(const Kind& kind) {
  std::string name(kind.name.substr(kind.name.find(' ') + 1));
  std::ranges::replace(name, ' ', '-');
  return name;
}

class SchemaWriter {
 public:
  explicit SchemaWriter(JsonWriter& json) : json_(json) {}

  void write() {
    json_.open('{').key("$schema").text("https://json-schema.org/draft/2020-12/schema");
    json_.key("title").text("The cloud document of vnagent");
    writeReference(kDocument);
    json_.key("$defs").open('{');
    collect(kDocument);
    for (const Kind* kind : kinds_) writeKind(*kind);
    json_.close('}').close('}');
  }

 private:
  // All kinds of things that are in one, each once.
  void collect(const Kind& kind) {
    if (std::ranges::find(kinds_, &kind) != kinds_.end()) return;
    kinds_.push_back(&kind);
    for (const CollectionRow& row : kind.collections) {
      if (row.of != nullptr) collect(*row.of);
    }
  }

  void writeReference(const Kind& kind) { json_.key("$ref").text("#/$defs/" + definitionOf(kind)); }

  void writeKind(const Kind& kind) {
    json_.key(definitionOf(kind)).open('{').key("type").text("object");
    json_.key("properties").open('{');
    for (const ScalarRow& row : kind.scalars) {
      json_.key(row.name).open('{').key("description").text(row.about);
      const bool required = row.presence == ScalarRow::Presence::kRequired;
      writeForm(row.form, !required);
      if (!required && !row.form.open) {
        json_.key("default");
        vnagent::write(defaultOf(row.form), row.form, json_);
      }
      json_.close('}');
    }
    for (const CollectionRow& row : kind.collections) {
      json_.key(row.name).open('{').key("description").text(row.about);
      writeCollection(row);
      json_.close('}');
    }
    json_.close('}');
    // To remove what is not there is no fault.
    json_.key("additionalProperties").open('{').key("type").text("null").close('}');
    writeRequired(kind);
    if (!kind.scalars.empty()) json_.key("$comment").text(commentOf(kind));
    writeChoices(kind);
    json_.close('}');
  }

  static std::string_view commentOf(const Kind& kind) {
    return kind.onChange == OnChange::kWrite
               ? "A scalar that a patch names is written, also when its value stays the same."
               : "When a scalar changes, the whole is removed and added again, and all that uses "
                 "it.";
  }

  void writeRequired(const Kind& kind) {
    const auto required = [](const ScalarRow& row) {
      return row.presence == ScalarRow::Presence::kRequired;
    };
    if (std::ranges::none_of(kind.scalars, required)) return;
    json_.key("required").open('[');
    for (const ScalarRow& row : kind.scalars) {
      if (required(row)) json_.text(row.name);
    }
    json_.close(']');
  }

  // Scalars that have another form where another one has a value.
  void writeChoices(const Kind& kind) {
    for (const ScalarRow& row : kind.scalars) {
      if (row.forms.empty()) continue;
      const ScalarRow& by = kind.scalars[row.by];
      for (const FormFor& choice : row.forms) {
        const bool first = &choice == &row.forms.front();
        if (!first) json_.key("else").open('{');
        json_.key("if").open('{').key("properties").open('{').key(by.name).open('{');
        json_.key("enum").open('[');
        const auto number = static_cast<uint64_t>(choice.value);
        if (number < by.form.words.size()) json_.text(by.form.words[number]);
        json_.number(number).close(']').close('}').close('}').close('}');
        json_.key("then").open('{').key("properties").open('{').key(row.name).open('{');
        writeRange(choice.form);
        json_.close('}').close('}').close('}');
      }
      for (size_t i = 1; i < row.forms.size(); ++i) json_.close('}');
    }
  }

  void writeRange(const Form& form) {
    if (form.low > -1e300) json_.key(form.open ? "exclusiveMinimum" : "minimum").number(form.low);
    if (form.high < 1e300) json_.key("maximum").number(form.high);
  }

  void writeType(std::string_view type, bool orNull) {
    if (!orNull) {
      json_.key("type").text(type);
      return;
    }
    json_.key("type").open('[').text(type).text("null").close(']');
  }

  void writeForm(const Form& form, bool orNull) {
    switch (form.type) {
      case Form::Type::kBool:
        return writeType("boolean", orNull);
      case Form::Type::kInteger:
        if (form.words.empty()) {
          writeType("integer", orNull);
          return writeRange(form);
        }
        json_.key("anyOf").open('[').open('{');
        writeType("integer", orNull);
        writeRange(form);
        json_.close('}').open('{');
        writeWords(form, false);
        json_.close('}').close(']');
        return;
      case Form::Type::kWord:
        return writeWords(form, orNull);
      case Form::Type::kNumber:
      case Form::Type::kSeconds:
        writeType("number", orNull);
        return writeRange(form);
      case Form::Type::kText:
        return writeType("string", orNull);
      case Form::Type::kName:
        writeType("string", orNull);
        if (!form.mayBeEmpty) json_.key("minLength").number(uint64_t{1});
        json_.key("maxLength").number(uint64_t{kMaxNameBytes});
        json_.key("not").open('{').key("type").text("string");
        json_.key("pattern").text(kControlCharacter).close('}');
        return;
    }
  }

  void writeWords(const Form& form, bool orNull) {
    json_.key("enum").open('[');
    for (const auto word : form.words) json_.text(word);
    if (orNull) json_.null();
    json_.close(']');
  }

  void writeCollection(const CollectionRow& row) {
    if (row.shape == CollectionRow::Shape::kOne) {
      writeThing(row);
      return;
    }
    writeType("object", true);
    writeKeys(row.key, [&] {
      if (row.shape == CollectionRow::Shape::kByKey) return writeThing(row);
      writeType("object", true);
      writeKeys(row.key, [&] { writeThing(row); });
    });
  }

  // What a member is, or null.
  void writeThing(const CollectionRow& row) {
    if (row.of == nullptr) return writeForm(*row.value, true);
    json_.key("anyOf").open('[').open('{').key("type").text("null").close('}');
    json_.open('{');
    writeReference(*row.of);
    json_.close('}').close(']');
  }

  // The members of an object by key; `value` writes what one is. Under a key that is none, only
  // null is legal.
  template <class Value>
  void writeKeys(const KeyForm& key, Value value) {
    const auto nullUnder = [&](std::string_view pattern) {
      json_.key(pattern).open('{').key("type").text("null").close('}');
    };
    json_.key("patternProperties").open('{');
    if (key.number) {
      // Some engines let $ match before a line feed at the end, too.
      json_.key(fmt::format("^(?:{})$(?!\\n)", key.pattern)).open('{');
      value();
      json_.close('}').close('}');
      json_.key("additionalProperties").open('{').key("type").text("null").close('}');
      return;
    }
    if (!key.mayBeEmpty) nullUnder("^$");
    nullUnder(kControlCharacter);
    nullUnder(fmt::format("^[\\s\\S]{{{}}}", kMaxNameBytes + 1));
    json_.close('}').key("additionalProperties").open('{');
    value();
    json_.close('}');
  }

  static constexpr std::string_view kControlCharacter = "[\\u0000-\\u001f\\u007f]";

  JsonWriter& json_;
  std::vector<const Kind*> kinds_;
};

}  // namespace

void writeCloudSchema(JsonWriter& json) {
  SchemaWriter(json).write();
}

}  // namespace vnagent
