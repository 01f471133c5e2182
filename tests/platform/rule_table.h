// The rules of the verifier, each shown by at least one tiny bad driver that must be caught and its good
// twin, which does the same without the mistake and must pass. Every layer that checks rules has a table of
// its own; all of them together must name every rule there is.
#pragma once

#include "platform/kernel/scheduler.h"
#include "platform/verifier/verifier.h"

#include <ntdef.h>

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace platform_test {

struct RuleCase {
    // Runs on a machine of its own; the verifier's report, when it stopped the run.
    using Driver = std::function<std::optional<verifier::Report>(const kernel::SchedulerOptions&)>;

    verifier::Rule rule;
    std::string mistake;
    Driver bad;
    Driver good;
};

std::ostream& operator<<(std::ostream& out, const RuleCase& test);

// Writes past the instruments of AddressSanitizer, which would end the program at the write itself.
inline __attribute__((noinline, no_sanitize("address"))) void poke(UCHAR* address) {
    *const_cast<volatile UCHAR*>(address) = 1;
}

std::vector<RuleCase> kernelRules();
std::vector<RuleCase> frameworkRules();

} // namespace platform_test
