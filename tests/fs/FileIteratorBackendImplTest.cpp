#include <ovra/fs/FileIterator.h>

#include <cstddef>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/fs/FileTest.h>
#include <tests/fs/TemporaryDirectory.h>
#include <tests/support/VirtualTable.h>

namespace ovra::fs {
namespace {

using ovra::test::virtualSlot;
using ovra::test::virtualSlotCount;
using test::makeLink;
using test::namesIn;
using test::openDescriptors;
using test::WorkingDirectory;
using test::writeFile;

template <typename Class>
constexpr bool hasTheOperations() {
    return IS<decltype(&Class::Valid), bool (Class::*)() const> &&
           IS<decltype(&Class::Path), std::string (Class::*)() const> &&
           IS<decltype(&Class::Index), int (Class::*)() const> &&
           IS<decltype(&Class::Name), std::string (Class::*)() const> &&
           IS<decltype(&Class::Next), void (Class::*)()>;
}
static_assert(hasTheOperations<FileIteratorBackend>());
static_assert(hasTheOperations<FileIteratorBackendImpl>());
static_assert(std::is_abstract_v<FileIteratorBackend>);
static_assert(std::has_virtual_destructor_v<FileIteratorBackend>);
static_assert(sizeof(FileIteratorBackend) == sizeof(void*), "no data beside the virtual table");
static_assert(std::is_base_of_v<FileIteratorBackend, FileIteratorBackendImpl>);
static_assert(std::is_constructible_v<FileIteratorBackendImpl, std::string const&>);
static_assert(!std::is_copy_constructible_v<FileIteratorBackendImpl>);

class FileIteratorBackendImplTest : public test::TemporaryDirectoryTest {};

TEST_F(FileIteratorBackendImplTest, HasTheBackEndsOperationsInTheirSlots) {
    EXPECT_EQ(virtualSlot(&FileIteratorBackend::Valid), 2u) << "after the destructor's two";
    EXPECT_EQ(virtualSlot(&FileIteratorBackend::Path), 3u);
    EXPECT_EQ(virtualSlot(&FileIteratorBackend::Index), 4u);
    EXPECT_EQ(virtualSlot(&FileIteratorBackend::Name), 5u);
    EXPECT_EQ(virtualSlot(&FileIteratorBackend::Next), 6u);
    EXPECT_EQ(virtualSlotCount("FileIteratorBackend", "fs"), 7u);
    EXPECT_EQ(virtualSlotCount("FileIteratorBackendImpl", "fs"), 7u);
    EXPECT_EQ(virtualSlotCount("FileIterator", "fs"), 0u)
        << "the iterator itself is no polymorphic class";
}

TEST_F(FileIteratorBackendImplTest, StandsOnTheFirstEntryAtOnceAndCountsFromZero) {
    for (char const* const name : {"a", "b", ".c", "..d", "..."}) {
        writeFile(at(name));
    }
    std::vector<std::string> const names = namesIn(root);
    ASSERT_EQ(names.size(), 5u);
    FileIteratorBackendImpl backend(root);
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_TRUE(backend.Valid());
        EXPECT_EQ(backend.Index(), static_cast<int>(i));
        EXPECT_EQ(backend.Name(), names[i]);
        EXPECT_EQ(backend.Path(), root);
        backend.Next();
    }
    EXPECT_FALSE(backend.Valid());
    EXPECT_EQ(backend.Name(), "");
    EXPECT_EQ(backend.Path(), root);
    EXPECT_EQ(backend.Index(), 5) << "the number of entries";
}

TEST_F(FileIteratorBackendImplTest, KeepsCountingAfterTheEndAndNeverReturns) {
    writeFile(at("a"));
    FileIteratorBackendImpl backend(root);
    backend.Next();
    ASSERT_FALSE(backend.Valid());
    // An entry added now is one that another read of the directory could bring.
    writeFile(at("b"));
    for (int index = 1; index < 10; ++index) {
        EXPECT_EQ(backend.Index(), index);
        EXPECT_FALSE(backend.Valid());
        EXPECT_EQ(backend.Name(), "");
        backend.Next();
    }
}

TEST_F(FileIteratorBackendImplTest, IsExhaustedAtIndexZeroInAnEmptyDirectory) {
    FileIteratorBackendImpl backend(root);
    EXPECT_FALSE(backend.Valid());
    EXPECT_EQ(backend.Index(), 0);
    EXPECT_EQ(backend.Name(), "");
    EXPECT_EQ(backend.Path(), root);
    backend.Next();
    EXPECT_EQ(backend.Index(), 1);
    EXPECT_FALSE(backend.Valid());
}

TEST_F(FileIteratorBackendImplTest, StaysAtMinusOneWhereItCannotOpen) {
    writeFile(at("file"));
    makeLink("missing", at("dangling"));
    for (std::string const& path :
         {at("missing"), at("file"), at("dangling"), at("file/below"), std::string()}) {
        FileIteratorBackendImpl backend(path);
        for (int round = 0; round < 3; ++round) {
            EXPECT_FALSE(backend.Valid()) << path;
            EXPECT_EQ(backend.Index(), -1) << path;
            EXPECT_EQ(backend.Name(), "") << path;
            EXPECT_EQ(backend.Path(), path);
            backend.Next();
        }
    }
}

TEST_F(FileIteratorBackendImplTest, KeepsThePathAsGiven) {
    writeFile(at("a"));
    WorkingDirectory const here(root);
    for (std::string const& path :
         {std::string("."), std::string(".//"), root + "//", root + "/."}) {
        FileIteratorBackendImpl const backend(path);
        EXPECT_TRUE(backend.Valid()) << path;
        EXPECT_EQ(backend.Name(), "a") << path;
        EXPECT_EQ(backend.Path(), path);
    }
}

TEST_F(FileIteratorBackendImplTest, HoldsOneDescriptorAndClosesIt) {
    std::size_t const before = openDescriptors().size();
    {
        FileIteratorBackendImpl backend(root);
        EXPECT_EQ(openDescriptors().size(), before + 1);
        backend.Next();
        EXPECT_EQ(openDescriptors().size(), before + 1) << "until it is destroyed";
        FileIteratorBackendImpl const unopened(at("missing"));
        EXPECT_EQ(openDescriptors().size(), before + 1);
    }
    EXPECT_EQ(openDescriptors().size(), before);
}

}  // namespace
}  // namespace ovra::fs
