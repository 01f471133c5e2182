// Runs the tables of rules, and checks that together they show every rule.
#include "tests/platform/rule_table.h"

#include "tests/platform/run.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace platform_test {

std::ostream& operator<<(std::ostream& out, const RuleCase& test) {
    return out << ruleName(test.rule) << ": " << test.mistake;
}

namespace {

using kernel::Strategy;
using verifier::Rule;

std::vector<RuleCase> allRules() {
    std::vector<RuleCase> cases = kernelRules();
    for (RuleCase& test : frameworkRules()) {
        cases.push_back(std::move(test));
    }
    return cases;
}

class Rules : public ::testing::TestWithParam<RuleCase> {};

TEST_P(Rules, CatchTheMistakeAndPassItsGoodTwin) {
    const RuleCase& test = GetParam();
    for (Strategy strategy : {Strategy::InOrder, Strategy::Random, Strategy::Pct}) {
        kernel::SchedulerOptions options = sim(strategy, 3);
        options.stepLimit = 100'000;
        const auto report = test.bad(options);
        ASSERT_TRUE(report);
        EXPECT_EQ(report->rule, test.rule) << report->text();
        EXPECT_FALSE(report->call.empty()) << report->text();
        const auto none = test.good(options);
        EXPECT_FALSE(none) << none->text();
    }
}

INSTANTIATE_TEST_SUITE_P(All, Rules, ::testing::ValuesIn(allRules()));

TEST(RuleTable, ShowsEveryRule) {
    const std::vector<RuleCase> cases = allRules();
    for (std::size_t i = 0; i < verifier::kRuleCount; i++) {
        const auto rule = static_cast<Rule>(i);
        EXPECT_TRUE(std::any_of(cases.begin(), cases.end(),
                                [rule](const RuleCase& test) { return test.rule == rule; }))
            << ruleName(rule) << " has no bad driver.";
    }
}

} // namespace

} // namespace platform_test
