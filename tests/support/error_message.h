// The message of an operation about bad input.
#pragma once

#include "support/input_error.h"

#include <string>

namespace test {

template <typename Body>
std::string messageOf(Body body) {
    try {
        body();
    } catch (const support::InputError& error) {
        return error.what();
    }
    return "(no error)";
}

} // namespace test
