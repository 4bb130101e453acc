#include <cerrno>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <ovra/extra.h>

namespace ovra::extra {

namespace {

static_assert(std::is_same_v<std::underlying_type_t<Outcome>, std::int32_t>);

struct Meaning {
    Outcome outcome;
    std::int32_t value;
    char const* name;
    std::vector<int> errors;
};

std::vector<Meaning> const table = {
    {Outcome::DONE, 0, "DONE", {0}},
    {Outcome::DONE_NOT_SYNCED, 1, "DONE_NOT_SYNCED", {}},
    {Outcome::MISSING, 2, "MISSING", {ENOENT, ENOTDIR}},
    {Outcome::EXISTS, 3, "EXISTS", {EEXIST, ENOTEMPTY}},
    {Outcome::DENIED, 4, "DENIED", {EACCES, EPERM}},
    {Outcome::READ_ONLY, 5, "READ_ONLY", {EROFS}},
    {Outcome::FULL, 6, "FULL", {ENOSPC, EDQUOT, EFBIG}},
    {Outcome::BUSY, 7, "BUSY", {EBUSY, ETXTBSY, EAGAIN}},
    {Outcome::WRONG_KIND, 8, "WRONG_KIND", {EISDIR, EINVAL, EXDEV, ENXIO, ENODEV}},
    {Outcome::NAME_TOO_LONG, 9, "NAME_TOO_LONG", {ENAMETOOLONG}},
    {Outcome::TOO_MANY_LINKS, 10, "TOO_MANY_LINKS", {ELOOP, EMLINK}},
    {Outcome::NO_DESCRIPTORS, 11, "NO_DESCRIPTORS", {EMFILE, ENFILE}},
    {Outcome::NO_MEMORY, 12, "NO_MEMORY", {ENOMEM}},
    {Outcome::DAMAGED, 13, "DAMAGED", {EIO, EUCLEAN, EBADMSG, ESTALE}},
    {Outcome::REFUSED, 14, "REFUSED", {}},
    {Outcome::OTHER, 15, "OTHER", {}}};

Outcome expected(int error) {
    for (Meaning const& row : table) {
        for (int const listed : row.errors) {
            if (listed == error) {
                return row.outcome;
            }
        }
    }
    return Outcome::OTHER;
}

TEST(OutcomeTest, HasTheValuesAndNamesOfTheTable) {
    for (Meaning const& row : table) {
        EXPECT_EQ(static_cast<std::int32_t>(row.outcome), row.value) << row.name;
        EXPECT_STREQ(outcomeName(row.outcome), row.name);
    }
}

TEST(OutcomeTest, OfAnyOtherValueIsUnknown) {
    for (std::int32_t const value : {-1, 16, INT32_MIN, INT32_MAX}) {
        EXPECT_STREQ(outcomeName(static_cast<Outcome>(value)), "UNKNOWN") << value;
    }
}

TEST(OutcomeTest, OfEveryErrorIsThatOfTheTable) {
    for (int error = -1; error < 200; ++error) {
        errno = EDOM;
        EXPECT_EQ(outcomeOf(error), expected(error)) << error;
        EXPECT_EQ(errno, EDOM);
    }
}

TEST(OutcomeTest, AttemptSaysDoneForATrueResultWhateverFailedOnTheWay) {
    errno = EDOM;
    EXPECT_EQ(attempt([] {
                  errno = ENOENT;
                  return true;
              }),
              Outcome::DONE);
    EXPECT_EQ(errno, EDOM);
}

TEST(OutcomeTest, AttemptSaysWhyTheLastCallFailed) {
    errno = EDOM;
    EXPECT_EQ(attempt([] {
                  errno = ENOENT;
                  errno = ENOSPC;
                  return false;
              }),
              Outcome::FULL);
    EXPECT_EQ(errno, EDOM);
}

TEST(OutcomeTest, AttemptSaysRefusedWhereNoCallFailed) {
    errno = EDOM;
    EXPECT_EQ(attempt([] { return false; }), Outcome::REFUSED);
    EXPECT_EQ(errno, EDOM);
}

TEST(OutcomeTest, AttemptPutsErrnoBackWhenTheOperationThrows) {
    errno = EDOM;
    EXPECT_THROW(attempt([]() -> bool {
                     errno = ENOENT;
                     throw std::runtime_error("thrown");
                 }),
                 std::runtime_error);
    EXPECT_EQ(errno, EDOM);
}

TEST(OutcomeTest, AttemptTakesAnyOperationWhoseResultConverts) {
    struct OnlyWhenMovedFrom {
        std::unique_ptr<int> held = std::make_unique<int>(1);
        std::unique_ptr<int> operator()() && { return std::move(held); }
    };
    EXPECT_EQ(attempt(OnlyWhenMovedFrom{}), Outcome::DONE);
    EXPECT_EQ(attempt([] { return static_cast<void*>(nullptr); }), Outcome::REFUSED);
}

}  // namespace

}  // namespace ovra::extra
