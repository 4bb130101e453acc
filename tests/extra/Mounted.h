#pragma once

#include <sys/mount.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

namespace ovra::extra {

/// A mount that ends with its scope.
class Mounted {
public:
    Mounted(std::string const& from, std::string const& onto, char const* type, unsigned long flags,
            char const* options = nullptr)
        : path(onto) {
        EXPECT_EQ(mount(from.c_str(), path.c_str(), type, flags, options), 0) << errno;
    }
    Mounted(Mounted const&) = delete;
    Mounted& operator=(Mounted const&) = delete;
    ~Mounted() { EXPECT_EQ(umount2(path.c_str(), MNT_DETACH), 0) << errno; }

private:
    std::string const path;
};

}  // namespace ovra::extra
