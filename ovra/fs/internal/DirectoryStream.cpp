#include <ovra/fs/internal/DirectoryStream.h>

#include <string_view>

namespace ovra::fs::internal {

struct dirent* readEntry(DIR* stream) {
    auto const isDotOrDotDot = [](std::string_view name) { return name == "." || name == ".."; };
    struct dirent* entry = nullptr;
    do {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream belongs to the caller alone.
        entry = ::readdir(stream);
    } while (entry != nullptr && isDotOrDotDot(entry->d_name));
    return entry;
}

}  // namespace ovra::fs::internal
