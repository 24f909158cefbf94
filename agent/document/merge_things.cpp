#include <algorithm>

#include <fmt/format.h>

#include "agent/document/merge.h"
#include "agent/document/places.h"

namespace vnagent {
namespace {

// The form that a scalar has beside the others of its thing.
const Form& formOf(const ScalarRow& row, const Values& values) {
  const auto* chosen = row.forms.empty() ? nullptr : std::get_if<int64_t>(&values[row.by]);
  if (chosen == nullptr) return row.form;
  const auto at = std::ranges::find(row.forms, *chosen, &FormFor::value);
  return at == row.forms.end() ? row.form : at->form;
}

class ThingMerger {
 public:
  ThingMerger(const ThingCollection& collection, Faults& faults)
      : to_(collection), faults_(faults) {}

  void merge(const JsonValue& patch) {
    if (isIndexed()) to_.state->expectPorts(patch.size);
    mergeMembers(
        patch, to_.row, to_.things, faults_, [this](Things::iterator at) { remove(at); },
        [this](const JsonValue& member, Things::iterator at, bool known) {
          mergeMember(member, at, known);
        });
  }

 private:
  bool isIndexed() const { return to_.state != nullptr; }

  void remove(Things::iterator at) {
    Thing& thing = at->second;
    if (!thing.present) return;
    if (isIndexed()) to_.state->unindexPort(*to_.region, at->first);
    DirtyThing dirty{{&*at, true}};
    if (thing.users.empty()) {
      dirty.gone = to_.things.extract(at);
    } else {
      // Some level still names it, which the rules refuse.
      dirty.before = std::exchange(thing.values, {});
      thing.present = false;
    }
    if (to_.dirty != nullptr) to_.dirty->push_back(std::move(dirty));
  }

  // A segment that a level of the patch names is known before it exists.
  void mergeMember(const JsonValue& patch, Things::iterator at, bool known) {
    const bool existed = known && at->second.present;
    auto values = valuesAfter(patch, existed ? &at->second.values : nullptr);
    if (!values || (existed && isSame(*values, at->second.values))) return;
    if (!known) at = to_.things.emplace_hint(at, std::string(patch.key), Thing{});
    Thing& thing = at->second;
    // One that is known and did not exist is dirty already.
    if (to_.dirty != nullptr && known == existed) {
      to_.dirty->push_back({{&*at, existed}, std::move(thing.values)});
    }
    thing.values = std::move(*values);
    thing.present = true;
    if (isIndexed() && !existed) to_.state->indexPort(*to_.region, at->first);
  }

  // Nothing where a scalar by itself does not fit.
  std::optional<Values> valuesAfter(const JsonValue& patch, const Values* before) {
    if (to_.row.of == nullptr) {
      auto value = read(patch, *to_.row.value, faults_);
      return value ? std::optional(Values{std::move(*value)}) : std::nullopt;
    }
    Values values = mergeReplaced(patch, *to_.row.of, before, faults_);
    refuseUnknown(patch, *to_.row.of, faults_);
    checkKept(patch, values);
    return values;
  }

  // A scalar that stays must fit what the patch makes of the one that chooses its form.
  void checkKept(const JsonValue& patch, const Values& values) {
    for (size_t i = 0; i < values.size(); ++i) {
      const ScalarRow& row = to_.row.of->scalars[i];
      if (row.forms.empty() || patch.find(row.name) != nullptr) continue;
      const Form& form = formOf(row, values);
      if (isOf(values[i], form)) continue;
      faults_.add(memberOf(placeOf(to_.region, to_.row.name, patch.key), row.name),
                  fmt::format("{} is not {}", std::get<int64_t>(values[i]), describe(form)));
    }
  }

  bool isSame(const Values& a, const Values& b) const {
    return to_.row.of == nullptr ? a == b : areSame(a, b, *to_.row.of);
  }

  const ThingCollection& to_;
  Faults& faults_;
};

}  // namespace

void mergeThings(const JsonValue& patch, const ThingCollection& collection, Faults& faults) {
  ThingMerger(collection, faults).merge(patch);
}

void mergeWritten(const JsonValue& patch, const Kind& kind, Values& values,
                  std::vector<DirtyScalar>& dirty, Faults& faults) {
  values.resize(kind.scalars.size());
  for (size_t i = 0; i < values.size(); ++i) {
    const ScalarRow& row = kind.scalars[i];
    std::optional<Scalar> after = Scalar();
    bool written = true;
    if (patch.isNull()) {
      if (values[i].index() == 0) continue;
      written = values[i] != defaultOf(row.form);
    } else {
      const JsonValue* member = patch.find(row.name);
      if (member == nullptr) continue;
      if (!member->isNull()) after = read(*member, row.form, faults);
      if (!after) continue;
    }
    dirty.push_back({i, std::exchange(values[i], std::move(*after)), written});
  }
}

Values mergeReplaced(const JsonValue& patch, const Kind& kind, const Values* before,
                     Faults& faults) {
  Values values(kind.scalars.size());
  bool given = false;
  for (size_t i = 0; i < values.size(); ++i) {
    const ScalarRow& row = kind.scalars[i];
    const JsonValue* member = patch.find(row.name);
    if (member == nullptr && before != nullptr && !before->empty()) {
      values[i] = (*before)[i];
    } else if (member != nullptr && !member->isNull()) {
      values[i] = read(*member, formOf(row, values), faults).value_or(Scalar());
    } else if (row.presence == ScalarRow::Presence::kRequired) {
      faults.add(patch, fmt::format("{} must have a {}", kind.name, row.name));
    }
    given = given || values[i].index() != 0;
  }
  return given ? values : Values();
}

void refuseUnknown(const JsonValue& patch, const Kind& kind, Faults& faults) {
  for (const JsonValue* member : patch.all()) {
    if (findRow(kind.scalars, member->key) || findRow(kind.collections, member->key)) continue;
    refuseMember(*member, kind.name, faults);
  }
}

}  // namespace vnagent
