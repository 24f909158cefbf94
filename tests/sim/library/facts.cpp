#include "tests/sim/library/facts.h"

#include <algorithm>

#include "tests/sim/library/names.h"

namespace sim {
namespace {

std::string name(Name kind, int number) {
  if (number < 0 || number >= namesOf(kind)) return "(unknown)";
  return '"' + std::string(nameOf(kind, number)) + '"';
}

std::string vlanText(const Fact& fact) {
  return " vlan " + std::to_string(fact.a);
}

std::string kindText(const Fact& fact) {
  const std::string a = std::to_string(fact.a);
  switch (fact.kind) {
    case Fact::exists:
      return " exists";
    case Fact::domain:
      return " domain " + name(Name::region, static_cast<int>(fact.a));
    case Fact::domainReferrer:
      return " domain " + name(Name::region, static_cast<int>(fact.a)) + " referrer " +
             name(Name::port, fact.who);
    case Fact::vlan:
      return vlanText(fact);
    case Fact::vlanReferrer:
      return vlanText(fact) + " referrer " + name(Name::port, fact.who);
    case Fact::vni:
      return vlanText(fact) + " vni " + std::to_string(fact.b);
    case Fact::vniReferrer:
      return vlanText(fact) + " vni " + std::to_string(fact.b) + " referrer " +
             name(Name::port, fact.who);
    case Fact::referrer:
      return " referrer bm-" + name(Name::port, fact.who);
    case Fact::remoteHost:
      return " remote host " + name(Name::element, fact.who);
    case Fact::configured:
      return " configured element " + name(Name::element, fact.who);
    case Fact::hostname:
      return " host name " + name(Name::element, fact.who);
    case Fact::assigned:
      return " assigned " + a;
    case Fact::available:
      return " available " + a;
    case Fact::allocated:
      return " allocated " + a;
    case Fact::syncStatus:
      return " sync status " + a;
    case Fact::oldSyncStatus:
      return " old sync status " + a;
    case Fact::owner:
      return " owner " + name(Name::requester, fact.who);
    case Fact::request:
      return " request " + name(Name::request, fact.who);
  }
  return "";
}

}  // namespace

std::string text(Fact::Holder holder, const Place& place) {
  const std::string element = name(Name::element, place.element);
  switch (holder) {
    case Fact::host:
      return "host " + element;
    case Fact::switchPort:
      return "switch port " + element + " " + name(Name::interface, place.interface);
    case Fact::interface:
      return "interface " + element + " " + name(Name::interface, place.interface);
    case Fact::element:
      return "element " + element;
    case Fact::region:
      return "region " + name(Name::region, place.element);
  }
  return "";
}

std::string text(const Fact& fact) {
  return text(fact.holder, fact.place) + kindText(fact);
}

std::string text(const Picture& picture) {
  std::string lines;
  for (const Fact& fact : picture.facts) lines += text(fact) + "\n";
  for (const auto& [place, vlan] : picture.natives) {
    lines += text(Fact::interface, place) + " native " + std::to_string(vlan) + "\n";
  }
  return lines;
}

void settle(std::vector<Fact>& facts) {
  std::ranges::sort(facts);
  facts.erase(std::unique(facts.begin(), facts.end()), facts.end());
}

}  // namespace sim
