// A removal in an application whose operator delete changes `errno`.

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include <ovra/extra/RemoveTree.h>
#include <tests/fs/Allocations.h>
#include <tests/fs/TemporaryDirectory.h>

#include <tests/extra/Intercepted.h>

namespace ovra::extra {

namespace {

using namespace ovra::fs::test;
using test::Intercepted;
using test::SystemCall;

class RemoveTreeErrnoTest : public TemporaryDirectoryTest {};

// Two directories, perhaps closed, are moved away, at each moment.
TEST_F(RemoveTreeErrnoTest, AWayBackThatIsGoneIsNoFailure) {
    constexpr int DEPTH = 14;                              // More than are kept open.
    std::string const below = "/" + std::string(20, 'd');  // A name in memory of its own.
    std::string const upper = at("t") + below + below;
    std::string const lower = upper + below + below + below;
    int moment = 0;
    bool isReached = true;
    while (isReached && !HasFailure()) {
        std::string path = at("t");
        for (int level = 0; level < DEPTH; ++level) {
            makeDirectory(path);
            path += below;
        }
        int calls = 0;
        {
            Intercepted intercepted;
            intercepted.before = [&](SystemCall const&) {
                if (calls++ == moment) {
                    rename(lower.c_str(), at("lower").c_str());
                    rename(upper.c_str(), at("upper").c_str());
                }
                return 0;
            };
            Allocations allocations;
            allocations.changeErrno();
            Outcome const outcome = removeTree(at("t"));
            EXPECT_EQ(outcome, Outcome::DONE) << "moved before call " << moment;
        }
        isReached = calls > moment++;
        removeTree(at("lower"));
        removeTree(at("upper"));
    }
    EXPECT_GT(moment, DEPTH);
}

}  // namespace

}  // namespace ovra::extra
