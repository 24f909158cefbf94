#include "agent/document/vocabulary.h"

#include <algorithm>

#include <fmt/format.h>

namespace vnagent {
namespace {

bool isNumber(const JsonValue& value) {
  return value.kind == JsonValue::Kind::kInteger || value.kind == JsonValue::Kind::kReal;
}

bool isInRange(double value, const Form& form) {
  return value <= form.high && (form.open ? value > form.low : value >= form.low);
}

// The value as a scalar of this form; monostate where it does not fit.
Scalar convert(const JsonValue& value, const Form& form) {
  if (value.kind == JsonValue::Kind::kString) {
    const auto word = std::ranges::find(form.words, value.text);
    if (word != form.words.end()) return int64_t{word - form.words.begin()};
  }
  switch (form.type) {
    case Form::Type::kBool:
      if (value.kind == JsonValue::Kind::kBool) return value.boolean;
      break;
    case Form::Type::kInteger:
      if (value.kind == JsonValue::Kind::kInteger && isInRange(value.real, form)) {
        return value.integer;
      }
      break;
    case Form::Type::kNumber:
    case Form::Type::kSeconds:
      if (isNumber(value) && isInRange(value.real, form)) return value.real;
      break;
    case Form::Type::kText:
    case Form::Type::kName:
    case Form::Type::kWord:
      break;
  }
  return {};
}

}  // namespace

std::optional<Scalar> read(const JsonValue& value, const Form& form, Faults& faults) {
  if (form.type == Form::Type::kText || form.type == Form::Type::kName) {
    const auto text = readText(value, form, faults);
    return text ? std::optional(Scalar(std::string(*text))) : std::nullopt;
  }
  Scalar scalar = convert(value, form);
  if (scalar.index() != 0) return scalar;
  faults.add(value, fmt::format("{} is not {}", shown(value), describe(form)));
  return std::nullopt;
}

std::optional<std::string_view> readText(const JsonValue& value, const Form& form, Faults& faults) {
  std::string fault;
  if (value.kind != JsonValue::Kind::kString) {
    fault = fmt::format("{} is not {}", shown(value), describe(form));
  } else if (form.type == Form::Type::kName && !(form.mayBeEmpty && value.text.empty())) {
    fault = faultOfName(value.text);
  }
  if (fault.empty()) return value.text;
  faults.add(value, std::move(fault));
  return std::nullopt;
}

bool isOf(const Scalar& value, const Form& form) {
  const auto* integer = std::get_if<int64_t>(&value);
  return integer == nullptr || isInRange(static_cast<double>(*integer), form);
}

const Scalar& defaultOf(const Form& form) {
  static const Scalar kFalse(false);
  static const Scalar kZero(int64_t{0});
  static const Scalar kZeroNumber(0.0);
  static const Scalar kEmpty{std::string()};
  switch (form.type) {
    case Form::Type::kBool:
      return kFalse;
    case Form::Type::kInteger:
    case Form::Type::kWord:
      return kZero;
    case Form::Type::kNumber:
    case Form::Type::kSeconds:
      return kZeroNumber;
    case Form::Type::kText:
    case Form::Type::kName:
      break;
  }
  return kEmpty;
}

void write(const Scalar& value, const Form& form, JsonWriter& json) {
  if (const auto* flag = std::get_if<bool>(&value)) {
    json.boolean(*flag);
  } else if (const auto* integer = std::get_if<int64_t>(&value)) {
    const auto number = static_cast<uint64_t>(*integer);
    if (number < form.words.size()) {
      json.text(form.words[number]);
    } else {
      json.number(number);
    }
  } else if (const auto* number = std::get_if<double>(&value)) {
    json.number(*number);
  } else {
    json.text(std::get<std::string>(value));
  }
}

std::string describe(const Form& form) {
  if (!form.what.empty()) {
    if (form.type != Form::Type::kInteger) return std::string(form.what);
    return fmt::format("{} ({:.0f} to {:.0f})", form.what, form.low, form.high);
  }
  switch (form.type) {
    case Form::Type::kBool:
      return "true or false";
    case Form::Type::kInteger: {
      const auto range = fmt::format("an integer {:.0f} to {:.0f}", form.low, form.high);
      if (form.words.empty()) return range;
      return fmt::format("\"{}\" or {}", fmt::join(form.words, "\", \""), range);
    }
    case Form::Type::kWord:
      return fmt::format("one of \"{}\"", fmt::join(form.words, "\", \""));
    case Form::Type::kNumber:
      return "a number";
    case Form::Type::kSeconds:
      return form.open ? fmt::format("a number of seconds (more than {:.0f}, at most {:.0f})",
                                     form.low, form.high)
                       : fmt::format("a number of seconds ({:.0f} or more)", form.low);
    case Form::Type::kText:
      return "a string";
    case Form::Type::kName:
      return form.mayBeEmpty ? "a name or the empty string" : "a name";
  }
  return {};
}

std::string_view syncStatusWord(SyncStatus status) {
  return kSyncStatusWords.at(static_cast<size_t>(status));
}

std::optional<double> readPositiveSeconds(const JsonValue& value, Faults& faults) {
  const auto seconds = read(value, form::kPositiveSeconds, faults);
  return seconds ? std::optional(std::get<double>(*seconds)) : std::nullopt;
}

std::string faultOfName(std::string_view text) {
  if (text.empty()) return "the empty string is no name (1 to 255 bytes)";
  if (text.size() > kMaxNameBytes) {
    return fmt::format("{} is no name: it has {} bytes (1 to 255)", shown(text), text.size());
  }
  const bool control = std::ranges::any_of(
      text, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
  return control ? shown(text) + " is no name: it has a control character" : std::string();
}

bool readKey(const JsonValue& member, const KeyForm& form, Faults& faults) {
  if (form.mayBeEmpty && member.key.empty()) return true;
  auto fault = faultOfName(member.key);
  if (fault.empty()) return true;
  faults.add(member, std::move(fault));
  return false;
}

std::optional<uint32_t> readNumberKey(const JsonValue& member, const KeyForm& form,
                                      Faults& faults) {
  const std::string_view text = member.key;
  uint32_t number = 0;
  const bool plain = !text.empty() && text.size() <= 9 && (text.size() == 1 || text[0] != '0') &&
                     std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
  for (const char c : plain ? text : "") number = number * 10 + static_cast<uint32_t>(c - '0');
  if (plain && number >= form.low && number <= form.high) return number;
  if (!member.isNull()) {
    faults.add(member, fmt::format("{} is not {} (\"{}\" to \"{}\")", shown(text), form.what,
                                   form.low, form.high));
  }
  return std::nullopt;
}

bool readObject(const JsonValue& value, std::string_view what, Faults& faults) {
  if (value.isObject()) return true;
  faults.add(value, fmt::format("{} is not an object: {}", shown(value), what));
  return false;
}

void refuseMember(const JsonValue& member, std::string_view owner, Faults& faults) {
  if (member.isNull()) return;  // removing what is not there is no fault
  faults.add(member, fmt::format("{} has no member {}", owner, shown(member.key)));
}

}  // namespace vnagent
