#pragma once
#include <string>
#include <string_view>

#include "platform/Ip.h"

/// Rules for names and addresses, whether a configuration, a directory or a name server has them.
namespace agent {
using namespace platform;

/// Empty, or what kind of address it is, of those that no collector has.
std::string collectorAddressProblem(const IpGenAddr& address);
/// Letters, digits, '-' and '_' in labels of at most 63 octets, the last of which is no number:
/// what was meant as an address is none (RFC 1123, 2.1).
bool isHostName(std::string_view text);
/// TOML needs no quotes around such a key: letters, digits, '-' and '_'.
bool isBareKey(std::string_view key);
/// Empty, or what would be a VRF's name: one that its namespace's file can have, and fit to print.
std::string vrfNameProblem(std::string_view name);
bool hasControl(std::string_view text);
bool hasControlOrBlank(std::string_view text);

}  // namespace agent
