#pragma once
#include "Ipfix/Ipfix.h"
#include "cli/wire/decoder/Element.h"

namespace cli {

/// Elements by the registry's names: those of IANA with IANA's types, those of the enterprise as
/// addresses or numbers. What the registry lacks is looked up in IANA's own list.
decoder::ElementLookup elementLookup(platform::Ptr<const Ipfix::ElementIdColl> registry);
/// The same with the registry that the library knows.
decoder::ElementLookup registryLookup();

}  // namespace cli
