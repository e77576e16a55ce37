// Readable text for info strings, single or compound, built on the unpackers.
#pragma once

#include <string>
#include <string_view>

namespace pysource::symbolinfo {

// One description per single, joined by "; ".  Malformed singles are
// described as such, with their bytes; this never raises.
std::string DescribeInfo(std::string_view ibytes);

}  // namespace pysource::symbolinfo
