#pragma once

#include <cerrno>

namespace ovra::extra {

/// Puts `errno` back to what it was when this was made.
class KeptErrno {
public:
    KeptErrno() = default;
    KeptErrno(KeptErrno const&) = delete;
    KeptErrno& operator=(KeptErrno const&) = delete;
    ~KeptErrno() { errno = value; }

private:
    int const value = errno;
};

}  // namespace ovra::extra
