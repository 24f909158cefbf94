// Looks into running machines: prints every attribute of every machine, calls a handler and writes
// a value, all by name. It knows the factory of the root machine, and no other class of machine.
#include <iostream>

#include "OpenStackSm/OpenStackSm.h"

namespace {

// Prints a machine, and below it the members of its collections. What it refers to otherwise, its
// inputs and outputs, it names by type.
void print(const Kiv::PtrInterface& object, const std::string& indent) {
  const Kiv::GenericIf& description = *object.genericIf();
  for (const Kiv::KivAttr& attribute : description.attributes()) {
    if (attribute.kind == Kiv::KivAttrKind::plain) {
      const Kiv::GenericValue value = description.read(object, attribute.name);
      const bool refers = value.form() == Kiv::ValueForm::object;
      std::cout << indent << attribute.name << ": " << (refers ? value.typeName() : value.text())
                << '\n';
    } else if (attribute.kind == Kiv::KivAttrKind::collection) {
      for (auto at = description.iterate(object, attribute.name); at->iterNonnull();
           at->iterInc()) {
        std::cout << indent << attribute.name << '[' << at->iterKey().text() << "]\n";
        print(*at->iterObj().object(), indent + "  ");
      }
    }
  }
}

// Runs one operation on an attribute, by its name.
Kiv::GenericValue operate(Kiv::PtrInterface& object, std::string_view attribute, Kiv::U8 operation,
                          const Kiv::GenericArguments& arguments) {
  const Kiv::GenericIf& description = *object.genericIf();
  Kiv::GenericValue result;
  bool notHandled = false;
  description.genericIfAttributeOp(object, false,
                                   {description.attribute(attribute)->index, operation}, arguments,
                                   result, notHandled);
  return result;
}

}  // namespace

int main() {
  Kiv::ActivityManager loop;
  const auto cloud = Kiv::make<OpenStack::OpenStackConfig>();
  const auto region = cloud->regionIs("RegionOne");
  region->segmentIs("seg-1")->segmentationIdIs(100);
  const auto binding = region->portBindingIs("port-1");
  binding->portIs(region->portIs("port-1"));
  binding->portToHostBindingIs("compute-1")->segmentIs(0, region->segmentIs("seg-1"));
  const auto machine = OpenStack::openStackSmFactory(
      cloud, Kiv::make<OpenStack::OpenStackStatus>(),
      Kiv::make<OpenStack::NameResolution::Config>(),
      Kiv::make<OpenStack::NameResolution::Status>(),
      Kiv::make<VirtualNetwork::RequestedResourcesCollection>(), 60, Kiv::make<OpenStack::Config>(),
      Kiv::make<VirtualNetwork::NetworkElementCollection>());
  print(*machine, "");

  // Text stands for any value that can be read from it.
  const auto text = [](std::string_view value) {
    return Kiv::GenericValue::of(Kiv::String(value));
  };
  operate(*machine, "regionSyncTimeout", Kiv::GenericOp::kWrite, {text("90")});
  const auto child =
      operate(*machine, "regionConfigSm", Kiv::GenericOp::kLookup, {text("RegionOne")});
  operate(*child.changeable(), "handleSegment", Kiv::GenericOp::kCall, {text("seg-1")});
  std::cout << "timeout of RegionOne: "
            << child.object()->genericIf()->read(*child.object(), "regionSyncTimeout").text()
            << '\n';
}
