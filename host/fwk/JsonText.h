// JSON text that never throws on the bytes its strings hold.
//
// nlohmann::json keeps strings as bytes and throws type_error 316 when it writes one that
// is not UTF-8. Strings often come from outside (a control request, a peer's text, a
// command-line argument), so every JSON document this project writes goes through here:
// a byte that is not UTF-8 is written as U+FFFD.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace Ovk {

// `j` as JSON text; `indent` < 0 writes it on one line. Any JSON type of the library (an
// ordered one keeps its keys in their order).
template <class Json>
std::string jsonText(Json const& j, int indent = -1) {
   return j.dump(indent, ' ', false, Json::error_handler_t::replace);
}

} // namespace Ovk
