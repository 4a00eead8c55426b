#include "agent/File.h"
#include "Support.h"

constexpr FileOpenMode kReadWrite = FileOpenMode::Read | FileOpenMode::Write;

using FileTest = FileFixture;

struct FileModes : FileTest, testing::WithParamInterface<unsigned int> {};

INSTANTIATE_TEST_SUITE_P(AllBits, FileModes, testing::Range(0U, 32U));

TEST_P(FileModes, TheStreamDoesWhatTheDescriptorCan)
{
    const auto has = [](FileOpenMode of, FileOpenMode bits) { return (of & bits) != FileOpenMode(); };
    const auto mode = static_cast<FileOpenMode>(GetParam());
    const bool writes = has(mode, FileOpenMode::Write | FileOpenMode::Append | FileOpenMode::Truncate);
    const bool reads = !writes || has(mode, FileOpenMode::Read);
    const std::string path = m_dir.file("present", "abc");
    const std::string left = has(mode, FileOpenMode::Truncate) ? "" : "abc";

    File file(m_log.logger(), path, mode);
    EXPECT_EQ(contentOf(path), left);
    EXPECT_EQ((file.getStream() << "xy" << std::flush).good(), writes);
    const std::string expected = has(mode, FileOpenMode::Append) ? left + "xy" : left.empty() ? "xy" : "xyc";
    EXPECT_EQ(contentOf(path), writes ? expected : left);

    file.seek(0, SEEK_SET);
    std::string content;
    if (reads) {
        EXPECT_TRUE(std::getline(file.getStream(), content));
        EXPECT_EQ(content, contentOf(path));
        EXPECT_EQ(file.slurp(), content);
    } else {
        EXPECT_EQ(thrownBy([&] { (void)file.slurp(); }), posix("pread(\"" + path + "\") failed", EBADF));
        EXPECT_EQ(thrownBy([&] { file.read(content); }), posix("read(\"" + path + "\") failed", EBADF));
    }

    const Path missing = m_dir / "missing";
    const std::string failure = posix("Failed to open file " + missing.u8string(), ENOENT);
    EXPECT_EQ(thrownBy([&] { const File created(m_log.logger(), missing, mode, FileCreateMode(07640)); }),
        has(mode, FileOpenMode::Create) ? "nothing" : failure);
    const auto given = has(mode, FileOpenMode::Create) ? std::filesystem::perms(0640) : std::filesystem::perms::unknown;
    EXPECT_EQ(std::filesystem::status(missing.u8string()).permissions(), given) << "only the low nine bits count";
}
TEST_F(FileTest, DirectCallsAndTheStreamShareOnePosition)
{
    const std::string path = m_dir.file("shared", "one two three");
    File file(m_log.logger(), path, kReadWrite);
    std::string word;
    char bytes[4] = {};

    file.getStream() >> word; // reads everything ahead
    EXPECT_EQ(file.read(bytes, 2), 2);
    EXPECT_EQ(word + std::string(bytes, 2), "one t");
    file.getStream() >> word;
    file.write("-"); // after what was read, not after what was read ahead
    EXPECT_EQ(contentOf(path), "one two-three");
    file.getStream() << "TH"; // still in the stream
    file.read(word);
    EXPECT_EQ(word, "ree");
    EXPECT_EQ(file.read(bytes, 4), 0);
    EXPECT_EQ(contentOf(path), "one two-THree");

    EXPECT_FALSE(file.getStream() >> word) << "at the end";
    file.seek(-4, SEEK_END);
    EXPECT_EQ(file.slurp(), "one two-THree");
    file.getStream().ignore(1).putback('h');
    file.read(word);
    EXPECT_EQ(word, "hree") << "slurp leaves the position, seek clears the stream; what was put back comes first";
}

TEST_F(FileTest, OpensForReadingByItselfAndLogsIt)
{
    const std::string path = m_dir.file("some", "content");
    File file(m_log.logger(), path);
    EXPECT_FALSE(file.getStream().good());
    EXPECT_EQ(thrownBy([&] { file.write("x"); }), posix("write(\"" + path + "\") failed", EBADF));
    EXPECT_EQ(file.slurp(), "content");
    EXPECT_THAT(m_log.lines(),
        ElementsAre(testing::ContainsRegex("^4 File " + path + " successfully opened with handle [0-9]+$")));

    std::iostream& stream = file.getStream();
    file.open(FileOpenMode::Write, File::DEFAULT_CREATE_MODE);
    stream << "C" << std::flush;
    EXPECT_EQ(contentOf(path), "Content") << "the stream outlives a second open";

    const File temporary(m_log.logger());
    temporary.write("kept");
    EXPECT_EQ(temporary.slurp(), "kept");
    EXPECT_EQ(temporary.getFilePath().fileName().substr(0, 6), "KESTA_");
    EXPECT_EQ(::unlink(temporary.getFilePath().u8string().c_str()), 0);
}

TEST_F(FileTest, ReadsWhatHasNoSizeOrNoPosition)
{
    EXPECT_THAT(File(m_log.logger(), "/proc/self/status").slurp(), HasSubstr("VmRSS"));

    const std::string pipe = m_dir / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const std::string sent(200'000, 'p'); // more than a pipe holds
    std::thread writer([&] { File(m_log.logger(), pipe, FileOpenMode::Write).write(sent); });
    EXPECT_EQ(File(CapturingLogger().logger(), pipe).slurp(), sent);
    writer.join();
}

TEST_F(FileTest, FailuresNameTheCallAndTheFile)
{
    File full(m_log.logger(), "/dev/full", kReadWrite);
    EXPECT_EQ(thrownBy([&] { full.write("x"); }), posix("write(\"/dev/full\") failed", ENOSPC));
    full.getStream() << "x";
    EXPECT_EQ(thrownBy([&] { full.seek(0, SEEK_SET); }), posix("write(\"/dev/full\") failed", ENOSPC))
        << "what the stream could not write is not dropped in silence";

    const File directory(m_log.logger(), m_dir.path());
    std::string out;
    EXPECT_EQ(thrownBy([&] { directory.read(out); }), posix("read(\"" + m_dir.path() + "\") failed", EISDIR));
    EXPECT_EQ(thrownBy([&] { directory.seek(-1, SEEK_SET); }), posix("lseek(\"" + m_dir.path() + "\") failed", EINVAL));
}
