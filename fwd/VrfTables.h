// The VRF id -> Linux routing table mapping behind redirect-to-VRF, from `--vrf-table
// ID=TABLE` flags and a small file of `ID TABLE` (or `ID=TABLE`) lines; `#` starts a comment.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "host/fwk/Result.h"

namespace Fwd {

using VrfTables = std::map<std::uint32_t, std::uint32_t>;

// Adds one `ID=TABLE` (or `ID TABLE`) to `into`. VRF ids are below 0xffffff (which means
// "no VRF"); tables are 1 to 0xffffffff, not the kernel's local table 255. A VRF named twice
// with different tables is an error. Returns the error text, empty on success.
std::string addVrfTable(std::string_view spec, VrfTables& into);
// Every line of a file's text; the error names the line.
Ovk::Result<VrfTables, std::string> parseVrfTables(std::string_view text);

} // namespace Fwd
