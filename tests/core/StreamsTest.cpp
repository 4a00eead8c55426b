#include "Support.h"
#include "agent/MemoryOutputStreamBuffer.h"
#include "agent/core/FilePathFinder.h"
#include "agent/dir/Operations.h"
#include "agent/filesystem/FileStreamFactory.h"

TEST(MemoryOutputStreamBuffer, GrowsByDoublingAndByAHundredAtLeastIfItMay)
{
    std::vector<char> bytes(3);
    MemoryOutputStreamBuffer buffer(bytes, true);
    std::ostream stream(&buffer);
    std::vector<std::size_t> sizes;
    for (int i = 0; i < 300; ++i) {
        stream << static_cast<char>('a' + i % 26);
        if (sizes.empty() || bytes.size() != sizes.back()) sizes.push_back(bytes.size());
    }
    EXPECT_EQ(sizes, (std::vector<std::size_t>{3, 103, 206, 412}));
    for (std::size_t i = 0; i < 300; ++i) EXPECT_EQ(bytes[i], static_cast<char>('a' + i % 26));
    EXPECT_EQ(stream.tellp(), 300);

    bytes.resize(3);
    MemoryOutputStreamBuffer fixed(bytes, false);
    EXPECT_EQ(fixed.sputn("abc", 3), 3);
    EXPECT_EQ(thrownBy([&] { fixed.sputc('d'); }),
        "runtime: MemoryOutputStreamBuffer overflow was called and resizing is disabled.");
}

TEST(MemoryOutputStreamBuffer, SeeksWithinTheVectorOnly)
{
    std::vector<char> bytes(10);
    MemoryOutputStreamBuffer buffer(bytes, true);
    using std::ios;
    constexpr std::streamoff kMost = std::numeric_limits<std::streamoff>::max();
    for (const auto& [offset, from, expected] :
        {std::tuple(0L, ios::end, 10), {1, ios::end, -1}, {0, ios::cur, 10}, {-4, ios::cur, 6}, {-7, ios::cur, -1},
            {kMost, ios::cur, -1}, {-kMost - 1, ios::end, -1}, {2, ios::beg, 2}})
        EXPECT_EQ(buffer.pubseekoff(offset, from), expected) << offset << ' ' << from;
    buffer.sputc('x');
    EXPECT_EQ(bytes[2], 'x');
    EXPECT_EQ(buffer.pubseekpos(5, std::ios::in), -1) << "nothing can be read";
}

using StreamsTest = FileFixture;

TEST_F(StreamsTest, TheFactoryOpensAsTheStandardStreamsDo)
{
    using std::ios;
    const filesystem::FileStreamFactory factory;
    for (const auto mode : {ios::openmode(), ios::in, ios::out, ios::app, ios::trunc, ios::ate, ios::app | ios::trunc,
             ios::in | ios::out, ios::in | ios::trunc, ios::in | ios::app, ios::in | ios::out | ios::ate}) {
        const std::string theirs = m_dir.file("theirs", "abc");
        const std::string ours = m_dir.file("ours", "abc");
        std::fstream standard(theirs, mode);
        const auto stream = factory.createInputOutputFileStream(ours, mode);
        EXPECT_EQ(stream->rdstate(), standard.rdstate()) << mode;
        EXPECT_EQ(stream->rdbuf()->pubseekoff(0, ios::cur), standard.rdbuf()->pubseekoff(0, ios::cur)) << mode;
        (void)standard.rdbuf()->sputc('x'), standard.close();
        (void)stream->rdbuf()->sputc('x'), stream->close();
        EXPECT_EQ(contentOf(ours), contentOf(theirs)) << mode;
    }
    EXPECT_TRUE(factory.createOutputFileStream("/dev/null", {})->is_open());
    EXPECT_EQ(factory.createInputFileStream("/dev/null/no", {})->rdstate(), ios::failbit);
}

TEST_F(StreamsTest, TheFinderFindsWhatIsNoDirectory)
{
    dir::make(m_dir / "logs/old.log", true);
    const std::string first = m_dir.file("logs/a.log", "");
    const std::string second = m_dir.file("logs/old.log/b.log", "");
    (void)m_dir.file("logs/other.txt", "");
    const std::string outside = m_dir.file("c.log", "");

    const core::FilePathFinder finder(m_dir.path());
    const auto isLog = [](const Path& path) { return path.fileName().ends_with(".log"); };
    EXPECT_EQ(finder.getFilePaths(m_dir / "logs", isLog), (std::vector<Path>{first, second}));
    EXPECT_EQ(finder.getFilePaths("", isLog), (std::vector<Path>{outside, first, second}));
}
