#include "cli/wire/Elements.h"

#include <map>
#include <memory>
#include <utility>

namespace cli {
namespace {
using decoder::Element;
using decoder::Type;

Type enterpriseType(const Ipfix::ElementId& e) {
  switch (e.id().value()) {
    case 1024:
    case 1025:
      return Type::ipv4Address;
    case 1026:
    case 1027:
      return Type::ipv6Address;
    default:
      return e.len() <= 8 ? Type::unsigned64 : Type::octetArray;
  }
}

struct Table {
  platform::Ptr<const Ipfix::ElementIdColl> registry;  // holds the names
  std::map<std::pair<uint32_t, uint32_t>, Element> elements;
};
}  // namespace

decoder::ElementLookup elementLookup(platform::Ptr<const Ipfix::ElementIdColl> registry) {
  auto table = std::make_shared<Table>();
  table->registry = std::move(registry);
  for (const auto& [type, e] : table->registry->elementIdColl()) {
    const uint32_t id = type.value();
    const Element* iana =
        e.enterpriseIe() ? nullptr : decoder::ianaElement(static_cast<uint16_t>(id));
    Element element{e.str(), iana ? iana->type : enterpriseType(e), iana && iana->flags};
    table->elements[{e.enterpriseIe() ? Ipfix::IpfixConst::enterpriseNumber() : 0, id}] = element;
  }
  return [table](uint32_t enterprise, uint16_t id) -> const Element* {
    auto it = table->elements.find({enterprise, id});
    if (it != table->elements.end()) return &it->second;
    return enterprise == 0 ? decoder::ianaElement(id) : nullptr;
  };
}

decoder::ElementLookup registryLookup() {
  auto registry = Ipfix::elementIdCollFactory();
  registry->doInitialize();
  return elementLookup(registry);
}

}  // namespace cli
