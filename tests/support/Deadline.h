#pragma once

#include <cstdlib>

namespace ovra::test {

/// The value of an environment variable as a number, or `otherwise` when it is not set.
inline double environmentNumber(char const* variable, double otherwise) {
    char const* const text = std::getenv(variable);
    return text != nullptr && *text != '\0' ? std::strtod(text, nullptr) : otherwise;
}

/// Seconds after which a test that is still waiting counts as hung: OVRA_TEST_DEADLINE_SECONDS, by
/// default 300. Every time limit of the tests follows it. It only bounds a hang: on a machine that
/// is busy or emulates another, raise it as far as you like.
inline unsigned int deadlineSeconds() {
    return static_cast<unsigned int>(environmentNumber("OVRA_TEST_DEADLINE_SECONDS", 300));
}

}  // namespace ovra::test
