// removeTree <directory>: removes what a job left behind, whoever else may write there.

#include <cstdio>
#include <string>

#include <ovra/extra.h>

using ovra::extra::Outcome;

int main(int, char** arguments) {
    Outcome const outcome = ovra::extra::removeTree(std::string(arguments[1]));
    if (outcome == Outcome::DONE || outcome == Outcome::MISSING) {
        return 0;  // It no longer exists, which is what counts.
    }
    std::fprintf(stderr, "Something is left in %s: %s.\n", arguments[1],
                 ovra::extra::outcomeName(outcome));
    return 1;
}
