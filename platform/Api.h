#pragma once
/// Marks what libtarnipfix.so exports; everything else in the library is hidden.
#define TARN_API __attribute__((visibility("default")))

/// The services and value types that the library needs of its host. The library's own namespaces
/// see these names unqualified.
namespace platform {}
namespace Ipfix {
using namespace platform;
}
namespace FlowTracking {
using namespace platform;
}
namespace HwFlowTracking {
using namespace platform;
}
namespace Tarn::Ipfix {
using namespace platform;
}
