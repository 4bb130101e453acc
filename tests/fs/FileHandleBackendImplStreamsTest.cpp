#include <ovra/fs/FileHandleBackendImpl.h>

#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/fs/FileTest.h>
#include <tests/fs/TemporaryDirectory.h>

namespace ovra::fs {
namespace {

using ::testing::IsNull;
using ::testing::NotNull;

using test::entryExists;
using test::makeDirectory;
using test::makeLink;
using test::makePipe;
using test::modeOf;
using test::readFile;
using test::writeFile;

class FileHandleBackendImplStreamsTest : public test::TemporaryDirectoryTest {};

TEST_F(FileHandleBackendImplStreamsTest, OpensInputStreams) {
    writeFile(at("file"), "first second");
    FileHandleBackendImpl const backend(at("file"));
    for (std::ios_base::openmode const mode : {NO_MODE, std::ios_base::in, std::ios_base::binary,
                                               std::ios_base::in | std::ios_base::binary}) {
        std::unique_ptr<std::istream> const stream = backend.CreateInputStream(mode);
        ASSERT_THAT(stream, NotNull());
        EXPECT_THAT(dynamic_cast<std::ifstream*>(stream.get()), NotNull());
        EXPECT_TRUE(stream->good());
        std::string word;
        *stream >> word;
        EXPECT_EQ(word, "first");
    }
    std::unique_ptr<std::istream> const atEnd = backend.CreateInputStream(std::ios_base::ate);
    EXPECT_EQ(atEnd->tellg(), std::streampos(12)) << "the mode given counts";
    EXPECT_EQ(readFile(at("file")), "first second");
}

TEST_F(FileHandleBackendImplStreamsTest, GivesAFailedInputStreamWhenItCannotOpen) {
    makeLink("missing", at("dangling"));
    for (std::string const& path : {at("missing"), at("dangling"), std::string()}) {
        std::unique_ptr<std::istream> const stream =
            FileHandleBackendImpl(path).CreateInputStream(NO_MODE);
        ASSERT_THAT(stream, NotNull()) << path;
        EXPECT_EQ(stream->rdstate(), std::ios_base::failbit) << path;
    }
    EXPECT_FALSE(entryExists(at("missing")));
}

TEST_F(FileHandleBackendImplStreamsTest, OpensOutputStreams) {
    constexpr std::ios_base::openmode APPEND = std::ios_base::app;
    constexpr std::ios_base::openmode UPDATE = std::ios_base::in;
    struct Row {
        std::ios_base::openmode mode;
        std::string result;
    };
    for (Row const& row : std::vector<Row>{{NO_MODE, "new"},
                                           {std::ios_base::binary, "new"},
                                           {std::ios_base::out, "new"},
                                           {std::ios_base::trunc, "new"},
                                           {APPEND, "old contentsnew"},
                                           {APPEND | std::ios_base::binary, "old contentsnew"},
                                           {UPDATE, "new contents"}}) {
        writeFile(at("file"), "old contents");
        FileHandleBackendImpl const backend(at("file"));
        std::unique_ptr<std::ostream> stream = backend.CreateOutputStream(row.mode);
        ASSERT_THAT(stream, NotNull());
        EXPECT_THAT(dynamic_cast<std::ofstream*>(stream.get()), NotNull());
        EXPECT_TRUE(stream->good());
        *stream << "new";
        stream.reset();
        EXPECT_EQ(readFile(at("file")), row.result) << "mode " << row.mode;
    }
}

TEST_F(FileHandleBackendImplStreamsTest, CreatesTheFileOfAnOutputStreamAsTheUmaskAllows) {
    for (std::ios_base::openmode const mode :
         {NO_MODE, std::ios_base::binary, std::ios_base::app}) {
        FileHandleBackendImpl backend(at("new"));
        mode_t const previous = umask(027);
        EXPECT_TRUE(backend.CreateOutputStream(mode)->good());
        umask(previous);
        EXPECT_EQ(modeOf(at("new")), S_IFREG | 0640u);
        EXPECT_TRUE(backend.Remove());
    }
}

TEST_F(FileHandleBackendImplStreamsTest, GivesAFailedOutputStreamWhenItCannotOpen) {
    makeDirectory(at("directory"));
    for (std::string const& path : {at("missing/file"), at("directory"), std::string()}) {
        std::unique_ptr<std::ostream> const stream =
            FileHandleBackendImpl(path).CreateOutputStream(NO_MODE);
        ASSERT_THAT(stream, NotNull()) << path;
        EXPECT_EQ(stream->rdstate(), std::ios_base::failbit) << path;
    }
    std::unique_ptr<std::ostream> const update =
        FileHandleBackendImpl(at("missing")).CreateOutputStream(std::ios_base::in);
    EXPECT_TRUE(update->fail()) << "in and out together do not create";
    EXPECT_FALSE(entryExists(at("missing")));
}

TEST_F(FileHandleBackendImplStreamsTest, LetsStreamsOutliveIt) {
    auto backend = std::make_unique<FileHandleBackendImpl>(at("file"));
    std::unique_ptr<std::ostream> output = backend->CreateOutputStream(NO_MODE);
    std::unique_ptr<std::istream> const input = backend->CreateInputStream(NO_MODE);
    backend.reset();
    *output << "text" << std::flush;
    std::string word;
    *input >> word;
    EXPECT_EQ(word, "text");
}

TEST_F(FileHandleBackendImplStreamsTest, StreamsThroughANamedPipe) {
    makePipe(at("pipe"));
    // Each end waits for the other to be opened.
    std::thread writer(
        [this] { *FileHandleBackendImpl(at("pipe")).CreateOutputStream(NO_MODE) << "through"; });
    std::string word;
    *FileHandleBackendImpl(at("pipe")).CreateInputStream(NO_MODE) >> word;
    writer.join();
    EXPECT_EQ(word, "through");
}

TEST_F(FileHandleBackendImplStreamsTest, OpensNoBackEnd) {
    writeFile(at("file"));
    FileHandleBackendImpl const backend(root);
    EXPECT_THAT(backend.Open("file"), IsNull());
    EXPECT_THAT(backend.Open(""), IsNull());
    EXPECT_THAT(backend.Open(at("file")), IsNull());
}

}  // namespace
}  // namespace ovra::fs
