// One line of JSON for each event. Names of files are bytes: those that are no UTF-8 are shown with
// the code points of their bytes' values, and "raw" beside them holds the bytes in hexadecimal.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "ui/text.h"

namespace peltexctl {

using Json = nlohmann::ordered_json;

inline void SetBytes(Json* object, const char* key, std::string_view bytes,
                     const char* raw_key = "raw") {
    std::string text = BytesToUtf8(bytes);
    const bool is_text = text == bytes;
    (*object)[key] = std::move(text);
    if (!is_text) {
        (*object)[raw_key] = Hexadecimal(bytes);
    }
}

inline std::string JsonLine(const Json& object) {
    return object.dump(-1, ' ', true);
}

}  // namespace peltexctl
