#include "cli/wire/Elements.h"

#include <map>
#include <memory>
#include <utility>

namespace cli {
using decoder::Element;

decoder::ElementLookup elementLookup(platform::Ptr<const Ipfix::ElementIdColl> registry) {
  struct Table {
    platform::Ptr<const Ipfix::ElementIdColl> registry;  // holds the names
    std::map<std::pair<uint32_t, uint32_t>, Element> elements;
  };
  auto table = std::make_shared<Table>();
  table->registry = std::move(registry);
  for (const auto& [type, e] : table->registry->elementIdColl()) {
    const auto id = static_cast<uint16_t>(type.value());
    table->elements[{e.enterpriseIe() ? Ipfix::IpfixConst::enterpriseNumber() : 0, id}] = {
        e.str(), elements::typeOf(e.enterpriseIe(), id, e.len())};
  }
  return [table](uint32_t enterprise, uint16_t id) -> const Element* {
    if (const Element* iana = enterprise == 0 ? decoder::ianaElement(id) : nullptr) return iana;
    if (enterprise == elements::reverseEnterprise) return decoder::reverseElement(id);
    auto it = table->elements.find({enterprise, id});
    return it == table->elements.end() ? nullptr : &it->second;
  };
}

decoder::ElementLookup registryLookup() {
  auto registry = Ipfix::elementIdCollFactory();
  registry->doInitialize();
  return elementLookup(registry);
}

}  // namespace cli
