#pragma once
#include "Ipfix/Ipfix.h"
#include "cli/wire/decoder/Element.h"

namespace cli {

/// Finds IANA's elements in IANA's list, and the others by the names that `registry` has for them.
decoder::ElementLookup elementLookup(platform::Ptr<const Ipfix::ElementIdColl> registry);
/// The same with the registry that the library comes with.
decoder::ElementLookup registryLookup();

}  // namespace cli
