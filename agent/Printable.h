#pragma once
#include "platform/linux/Printable.h"

namespace agent {
using platform::printable;
}
