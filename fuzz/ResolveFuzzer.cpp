// One path resolved against another, and folded, against the model.

#include <algorithm>
#include <string>

#include <ovra/fs/FilePath.h>
#include <tests/fs/FilePathModel.h>

#include <fuzz/Fuzzer.h>

namespace ovra::fs {
namespace {

void compare(std::string const& base, std::string const& other) {
    test::agreesWithTheModel(base, other);

    std::string const joined = test::modelResolve(base, other);
    for (bool const cached : {false, true}) {
        FilePath const from(base);
        FilePath const to(other);
        if (cached) {
            from.Cache();
            to.Cache();
        }
        FilePath const byPath = from.Resolve(to);
        FilePath const byText = from.Resolve(other);
        EXPECT_EQ(byPath.Path(), joined);
        EXPECT_EQ(test::componentsOf(byPath), test::modelComponents(joined));
        EXPECT_EQ(test::componentsOf(byText), test::modelComponents(joined));
        EXPECT_EQ(byPath.Resolved(), test::modelResolved(joined));
        EXPECT_EQ(FilePath(byPath.Resolved()).Resolve(from).Path(),
                  test::modelResolve(test::modelResolved(joined), base));
    }
}

}  // namespace
}  // namespace ovra::fs

// The first byte says how long the base is.
int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > 0) {
        std::size_t const baseSize = std::min<std::size_t>(data[0], size - 1);
        std::string const paths(data + 1, data + size);
        ovra::fs::compare(paths.substr(0, baseSize), paths.substr(baseSize));
    }
    return 0;
}
