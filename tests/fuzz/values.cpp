// Fuzz target: what a tool could ask of live machines by text. Each line is a request:
//
//   inspect PATH                     what `vnagent run --inspect PATH` shows
//   parse TEXT                       the text as a value of each type
//   OPERATION PATH NAME ARGUMENT...  an operation of the attribute NAME of the object at PATH, by
//                                    its number; "const 0" and so on for a const object
//
// Words are parted by tabs. What cannot be done is refused with an exception of the framework's.
#include <charconv>
#include <optional>
#include <vector>

#include "agent/json/json_writer.h"
#include "agent/output/inspection.h"
#include "agent/session/session.h"
#include "framework/Exceptions.h"
#include "framework/GenericIf.h"
#include "model/OpenStack/Values.h"
#include "model/VirtualNetwork/Values.h"
#include "tests/fuzz/fuzz.h"

namespace {

using Fuzz::require;
using Kiv::GenericOp;
using Kiv::GenericValue;
using Kiv::KivAttr;
using Kiv::KivAttrKind;
using vnagent::JsonTree;

// A bit of everything that machines are made for.
constexpr std::string_view kCloud = R"({
  "config": {"vlanAssignment": {"R": {"vlan": {"10": true, "11": false}}}},
  "region": {"R": {
    "segment": {"vx": {"segmentationType": "vxlan", "segmentationId": 5000},
                "vl": {"segmentationType": "vlan", "segmentationId": 10}},
    "port": {"p": {}, "q": {"vlanType": 1}},
    "portBinding": {
      "p": {"portToHostBinding": {"h": {"segment": {"0": "vx", "1": "vl"}}}},
      "q": {"portToSwitchInterfaceBinding": {
        "s": {"eth1": {"host": "b", "segment": {"0": "vx", "1": "vl"}}}}}},
    "tenant": {"t": {}}, "requester": "d", "requestId": "1", "syncStatus": "syncInProgress"}}})";

// Splits at a character; at least one piece.
std::vector<std::string_view> split(std::string_view text, char at) {
  std::vector<std::string_view> pieces;
  for (;;) {
    const auto end = text.find(at);
    pieces.push_back(text.substr(0, end));
    if (end == text.npos) return pieces;
    text.remove_prefix(end + 1);
  }
}

GenericValue textValue(std::string_view text) {
  return GenericValue::of(Kiv::String(text));
}

// A text that is read as a value gives, as text, a value that reads the same.
template <class T>
void parse(const GenericValue& text) {
  try {
    const std::string once = GenericValue::of(text.as<T>()).text();
    const std::string twice = GenericValue::of(textValue(once).as<T>()).text();
    require(once == twice, "a value comes back from its text");
  } catch (const Kiv::RangeException&) {
    const auto read = Kiv::ValueTraits<T>::parse(text.text());
    require(!read || !Kiv::ValueTraits<T>::parse(GenericValue::of(*read).text()),
            "what was read once is read again");
    require(!read, "a value comes back from its text");
  }
}

template <class... T>
void parseAll(std::string_view text) {
  (parse<T>(textValue(text)), ...);
}

class Tool {
 public:
  Tool() {
    const auto outcome = session_.take(vnagent::SourceEvent::ofDocument(kCloud));
    require(outcome.applied(), "the cloud has no fault");
  }

  void request(std::string_view line) {
    auto words = split(line, '\t');
    if (words[0] == "inspect" && words.size() == 2) return inspect(words[1]);
    if (words[0] == "parse" && words.size() == 2) {
      return parseAll<bool, Kiv::U8, Kiv::U16, Kiv::U32, Kiv::U64, Kiv::Seconds, Kiv::Name,
                      Kiv::String, OpenStack::SyncStatus, OpenStack::SegmentationType,
                      OpenStack::VlanType, OpenStack::VlanTypeDriver,
                      VirtualNetwork::SwitchInterface>(words[1]);
    }
    const bool isConst = words[0].starts_with("const ");
    if (isConst) words[0].remove_prefix(6);
    Kiv::U8 operation = 0;
    const auto end = words[0].data() + words[0].size();
    if (std::from_chars(words[0].data(), end, operation).ptr != end || words.size() < 3) return;
    try {
      operate(isConst, operation, words);
    } catch (const Kiv::Exception&) {
      // Refused.
    }
  }

 private:
  void inspect(std::string_view path) {
    std::string text;
    vnagent::JsonWriter json(text, vnagent::JsonWriter::Style::kIndented);
    const auto fault = writeInspection(session_.root(), "openStackSm", path, json);
    require(fault ? text.empty() : !JsonTree::parse(text).error(), "JSON, or a fault and nothing");
  }

  void operate(bool isConst, Kiv::U8 operation, const std::vector<std::string_view>& words) {
    const auto object = objectAt(words[1]);
    if (!object || object->genericIf() == nullptr) return;
    const KivAttr* attribute = object->genericIf()->attribute(words[2]);
    if (attribute == nullptr || breaksTheTree(*attribute, operation)) return;
    Kiv::GenericArguments arguments;
    for (size_t i = 3; i < words.size(); ++i) arguments.push_back(textValue(words[i]));
    GenericValue result;
    bool notHandled = false;
    object->genericIf()->genericIfAttributeOp(const_cast<Kiv::PtrInterface&>(*object), isConst,
                                              {attribute->index, operation}, arguments, result,
                                              notHandled);
    require(!notHandled, "an attribute that is there is handled");
    (void)result.text();
    Kiv::ActivityManager::instance().run();
  }

  // The object at a path of names and keys; null where there is none.
  Kiv::Ptr<const Kiv::PtrInterface> objectAt(std::string_view path) const {
    Kiv::Ptr<const Kiv::PtrInterface> object(&session_.root());
    const auto names = split(path, '/');
    for (size_t i = 1; i < names.size() && object; ++i) {
      const auto* description = object->genericIf();
      const KivAttr* attribute = description ? description->attribute(names[i]) : nullptr;
      if (attribute == nullptr || attribute->kind == KivAttrKind::handler) return nullptr;
      if (attribute->kind == KivAttrKind::plain) {
        object = description->read(*object, attribute->name).object();
      } else if (++i < names.size()) {
        const auto at =
            description->genericIfIteratorKey(*object, attribute->index, textValue(names[i]));
        if (!at->iterNonnull()) return nullptr;
        object = at->iterObj().object();
      }
    }
    return object;
  }

  // What a host must not do, and takes with it what it promised to the machines: make and delete
  // members, or write what they stand for, behind the back of their owner.
  static bool breaksTheTree(const KivAttr& attribute, Kiv::U8 operation) {
    return attribute.kind == KivAttrKind::collection &&
           (operation == GenericOp::kCreate || operation == GenericOp::kDelete);
  }

  vnagent::VirtualClock clock_;
  vnagent::Session session_{{.toggle = true, .regionSyncTimeout = 60}, clock_};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Fuzz::NothingIsLeft nothingIsLeft;
  Tool tool;
  for (const auto line : split(Fuzz::textOf(data, size), '\n')) {
    try {
      tool.request(line);
    } catch (const Kiv::Exception&) {
      // Refused: a key on the way is none of its collection's type.
    }
  }
  return 0;
}
