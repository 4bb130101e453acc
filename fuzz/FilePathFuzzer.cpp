// Everything that a path answers, however the path came to be, against the model.

#include <string>

#include <ovra/fs/FilePath.h>
#include <tests/fs/FilePathModel.h>

#include <fuzz/Fuzzer.h>

namespace ovra::fs {
namespace {

FilePath s_earlier;  // Keeps the components of the input before.

void expectComponents(FilePath const& path, std::string const& text) {
    EXPECT_EQ(path.Path(), text);
    EXPECT_EQ(test::componentsOf(path), test::modelComponents(text)) << '"' << text << '"';
}

void compare(std::string const& text) {
    test::agreesWithTheModel(text, text);

    FilePath assigned(s_earlier);
    assigned = FilePath(text);
    expectComponents(assigned, text);

    s_earlier.SetPath(text);
    FilePath const copiedEarly(s_earlier);
    expectComponents(s_earlier, text);
    FilePath const copiedLate(s_earlier);
    expectComponents(copiedEarly, text);
    expectComponents(copiedLate, text);

    FilePath component(text);
    component.SetPath(component.DirectoryPath());
    expectComponents(component, test::modelComponents(text).directoryPath);
}

}  // namespace
}  // namespace ovra::fs

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    ovra::fs::compare(std::string(data, data + size));
    return 0;
}
