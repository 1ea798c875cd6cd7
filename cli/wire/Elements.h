#pragma once
#include "Ipfix/Ipfix.h"
#include "cli/wire/decoder/Element.h"

namespace cli {

/// IANA's elements as its list has them, and the others of the registry by their names there.
decoder::ElementLookup elementLookup(platform::Ptr<const Ipfix::ElementIdColl> registry);
/// The same with the registry that the library knows.
decoder::ElementLookup registryLookup();

}  // namespace cli
