// Lists of names in messages.
#pragma once

#include <functional>
#include <string>

namespace support {

// "a, b, c": what `name` takes from each element.
template <typename Range, typename Name>
std::string enumerate(const Range& range, Name name) {
    std::string list;
    for (const auto& element : range) {
        if (!list.empty()) {
            list += ", ";
        }
        list += std::invoke(name, element);
    }
    return list;
}

} // namespace support
