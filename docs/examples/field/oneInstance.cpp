// oneInstance <file>: runs until its standard input ends, unless it runs already.

#include <cstdio>
#include <string>

#include <ovra/extra.h>

using ovra::extra::Outcome;

int main(int, char** arguments) {
    ovra::extra::LockFile lock{std::string(arguments[1])};
    switch (Outcome const outcome = lock.tryLock()) {
        case Outcome::DONE:
            break;
        case Outcome::BUSY:
            std::fprintf(stderr, "Runs already.\n");
            return 2;
        default:
            std::fprintf(stderr, "Cannot lock %s: %s.\n", arguments[1],
                         ovra::extra::outcomeName(outcome));
            return 1;
    }
    std::fprintf(stderr, "Runs.\n");
    while (std::getchar() != EOF) {
    }
    return 0;  // The lock ends with the process, however that ends.
}
