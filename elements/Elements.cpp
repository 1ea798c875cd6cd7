#include "elements/Elements.h"

#include <cctype>
#include <iterator>
#include <map>
#include <string>

namespace elements {
namespace {
struct TypeRow {
  std::string_view name;
  size_t least;
  size_t most;
  std::string_view lengths;
};
constexpr size_t any = SIZE_MAX;
// In the order of the enumeration; sizes and reduced sizes: RFC 7011, 6.1 and 6.2.
constexpr TypeRow typeRows[] = {{"octetArray", 0, any, "any"},
                                {"unsigned8", 1, 1, "1"},
                                {"unsigned16", 1, 2, "1 to 2"},
                                {"unsigned32", 1, 4, "1 to 4"},
                                {"unsigned64", 1, 8, "1 to 8"},
                                {"signed8", 1, 1, "1"},
                                {"signed16", 1, 2, "1 to 2"},
                                {"signed32", 1, 4, "1 to 4"},
                                {"signed64", 1, 8, "1 to 8"},
                                {"float32", 4, 4, "4"},
                                {"float64", 4, 8, "4 or 8"},
                                {"boolean", 1, 1, "1"},
                                {"macAddress", 6, 6, "6"},
                                {"string", 0, any, "any"},
                                {"dateTimeSeconds", 4, 4, "4"},
                                {"dateTimeMilliseconds", 8, 8, "8"},
                                {"dateTimeMicroseconds", 8, 8, "8"},
                                {"dateTimeNanoseconds", 8, 8, "8"},
                                {"ipv4Address", 4, 4, "4"},
                                {"ipv6Address", 16, 16, "16"},
                                {"basicList", 0, any, "any"},
                                {"subTemplateList", 0, any, "any"},
                                {"subTemplateMultiList", 0, any, "any"}};
static_assert(std::size(typeRows) == static_cast<size_t>(Type::subTemplateMultiList) + 1);
const TypeRow& rowOf(Type t) { return typeRows[static_cast<size_t>(t)]; }
}  // namespace

std::string_view typeName(Type type) { return rowOf(type).name; }
std::string_view typeLengths(Type type) { return rowOf(type).lengths; }
size_t typeLen(Type type) { return rowOf(type).most; }
bool typeAllows(Type type, size_t len) {
  if (type == Type::float64) return len == 4 || len == 8;
  return len >= rowOf(type).least && len <= rowOf(type).most;
}

const Element* reverseElement(uint16_t id) {
  struct Reverse {
    std::string name;
    Element element;
  };
  static const auto all = [] {
    std::map<uint16_t, Reverse> made;
    for (uint32_t number = 0; number < 0x8000; ++number) {
      const Element* const iana = ianaElement(static_cast<uint16_t>(number));
      if (!iana) continue;
      Reverse& r = made[static_cast<uint16_t>(number)];
      r.name = "reverse" + std::string(iana->name);
      r.name[7] = static_cast<char>(std::toupper(static_cast<unsigned char>(r.name[7])));
      r.element = *iana;
      r.element.name = r.name;
    }
    return made;
  }();
  const auto it = all.find(id);
  return it == all.end() ? nullptr : &it->second.element;
}

Type typeOf(bool enterprise, uint16_t id, size_t len) {
  if (const Element* iana = enterprise ? nullptr : ianaElement(id)) return iana->type;
  if (enterprise && id >= 1024 && id <= 1027)  // the addresses of inner packets
    return len == 4 ? Type::ipv4Address : Type::ipv6Address;
  return len <= 8 ? Type::unsigned64 : Type::octetArray;
}

}  // namespace elements
