#pragma once
#include <functional>

#include "elements/Elements.h"

namespace decoder {
using elements::Element;
using elements::ianaElement;
using elements::reverseElement;
using elements::Type;
using elements::typeAllows;
using elements::typeLengths;
using elements::typeName;

/// Finds an element; enterprise 0 is IANA's registry. Null when unknown. What it returns must
/// outlive the decoder and every message.
using ElementLookup = std::function<const Element*(uint32_t enterprise, uint16_t id)>;

}  // namespace decoder
