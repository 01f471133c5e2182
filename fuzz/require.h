// Conditions that hold for every input of a fuzz target. A failure prints the place and the condition.
#pragma once

#include <cstdio>
#include <cstdlib>

#define REQUIRE(condition)                                                                                   \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::fprintf(stderr, "%s:%d: %s does not hold\n", __FILE__, __LINE__, #condition);               \
            std::abort();                                                                                    \
        }                                                                                                    \
    } while (false)
