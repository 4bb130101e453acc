#pragma once

#include <cstddef>
#include <cstdint>

namespace ovra::abi::test {

/// What one consumer sees of the library and of one file.
struct Observation {
    std::size_t offsetBytes;  ///< Of the consumer's own off_t.
    std::size_t timeBytes;    ///< Of the consumer's own time_t.
    std::size_t classBytes[5];
    std::int64_t sizeBytes;
    std::int64_t modificationTime;
    bool isFile;
    bool isListed;
};

/// By code that was compiled without any flag for large files and late times.
Observation observeAsPlainConsumer(char const* directory, char const* name);

/// By the same code, compiled with both.
Observation observeAsWideConsumer(char const* directory, char const* name);

}  // namespace ovra::abi::test
