// What the system says of a file system, with values of which no two are the same.

#include <ovra/extra/Space.h>

#include <sys/statvfs.h>

#include <cerrno>

#include <gtest/gtest.h>

#include <tests/support/NextFunction.h>

namespace {

struct statvfs64 const* pretended = nullptr;
int interruptions = 0;

}  // namespace

extern "C" __attribute__((visibility("default"))) int statvfs64(char const* path,
                                                                struct statvfs64* found) noexcept {
    if (pretended == nullptr) {
        static auto* const real =
            ovra::test::nextFunction<int(char const*, struct statvfs64*)>("statvfs64");
        return real(path, found);
    }
    if (interruptions > 0) {
        --interruptions;
        errno = EINTR;
        return -1;
    }
    *found = *pretended;
    return 0;
}

namespace ovra::extra {

namespace {

TEST(SpaceValuesTest, EachValueIsTheOneOfItsName) {
    struct statvfs64 system = {};
    system.f_bsize = 1 << 20;  // The best size of a transfer, which counts nothing.
    system.f_frsize = 4096;
    system.f_blocks = std::uint64_t{7} << 32;
    system.f_bfree = 5000;
    system.f_bavail = 3000;  // 2000 are for the superuser.
    system.f_files = 200;
    system.f_ffree = 100;
    system.f_favail = 50;
    pretended = &system;
    interruptions = 2;
    for (bool const isReadOnly : {false, true}) {
        system.f_flag = isReadOnly ? ST_RDONLY | ST_NOSUID : ST_NOSUID;
        Space space;
        EXPECT_EQ(readSpace(fs::FilePath("/"), space), Outcome::DONE);
        EXPECT_EQ(space.totalBytes, std::uint64_t{7 * 4096} << 32);
        EXPECT_EQ(space.freeBytes, 5000u * 4096);
        EXPECT_EQ(space.availableBytes, 3000u * 4096);
        EXPECT_EQ(space.totalEntries, 200u);
        EXPECT_EQ(space.freeEntries, 100u);
        EXPECT_EQ(space.readOnly, isReadOnly);
    }
    EXPECT_EQ(interruptions, 0);
    pretended = nullptr;
}

}  // namespace

}  // namespace ovra::extra
