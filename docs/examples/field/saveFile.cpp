// saveFile <file> <text>: gives the file that text, or leaves it as it was.

#include <cstdio>
#include <string>

#include <ovra/extra.h>

using ovra::extra::Outcome;

int main(int, char** arguments) {
    std::string const file = arguments[1];
    Outcome const outcome = ovra::extra::replaceFile(file, std::string(arguments[2]) + "\n");
    switch (outcome) {
        case Outcome::DONE:
            return 0;
        case Outcome::DONE_NOT_SYNCED:
            return 0;  // Saved; a loss of power in the next moments may bring the old file back.
        case Outcome::FULL:
            std::fprintf(stderr, "There is no space to save %s.\n", file.c_str());
            return 1;
        default:
            std::fprintf(stderr, "%s is not saved: %s.\n", file.c_str(),
                         ovra::extra::outcomeName(outcome));
            return 1;
    }
}
