#include "agent/Zip.h"
#include "Support.h"

namespace {

const std::string kNotRead = "runtime: Failed to read data from archive for file f";
const std::string kLeaves = "runtime: Entry name leaves the destination: ";
const std::string kNotOpened = "runtime: Failed to open file in archive";
const std::string kBadPassword = kNotOpened + " due to bad password. Error Code: -106";
const std::string kSecret = // "attack at dawn" behind the password "secret"
    "\x96\x7B\x9B\x15\x89\x99\xD7\xCC\xC4\x4E\x99\x45\xC4\xB3\x78\x19\x27\xCD\x7C\x09\x5B\x29\x75\x8C\x3E\xC5";

std::string little(std::uint64_t value, int bytes)
{
    return bytes == 0 ? "" : static_cast<char>(value) + little(value >> 8U, bytes - 1);
}

/// What an archive shows of an entry, be it true or not. The default is a stored "attack at dawn".
struct Entry {
    std::string name = "f";
    std::string data = "attack at dawn";
    std::uint32_t size = 14;
    std::uint32_t crc = 0x5A34750A;
    std::uint16_t method = 0;
    std::uint16_t flags = 0;
    std::size_t more = 0; ///< compressed bytes claimed beyond the data
};

Entry emptyEntry(const std::string& name)
{
    return {.name = name, .data = "", .size = 0, .crc = 0};
}

std::string archiveOf(const std::vector<Entry>& entries)
{
    std::string body;
    std::string directory;
    for (const Entry& e : entries) {
        const std::string both = little(20, 2) + little(e.flags, 2) + little(e.method, 2) + "\xAA\x49\x75\x5D" +
                                 little(e.crc, 4) + little(e.data.size() + e.more, 4) + little(e.size, 4) +
                                 little(e.name.size(), 2) + little(0, 2);
        directory += "PK\1\2" + little(20, 2) + both + little(0, 10) + little(body.size(), 4) + e.name;
        body += "PK\3\4" + both + e.name + e.data;
    }
    return body + directory + "PK\5\6" + little(0, 4) + little(entries.size(), 2) + little(entries.size(), 2) +
           little(directory.size(), 4) + little(body.size(), 4) + little(0, 2);
}

/// An archive, a place to extract it to, and a directory around both that must see nothing else.
struct ZipTest : FileFixture {
    void run(const std::string& command) const
    {
        const std::string inside = "cd '" + m_dir.path() + "' && " + command;
        ASSERT_EQ(std::system(inside.c_str()), 0) << command; // NOLINT(cert-env33-c): commands of our own
    }
    std::string extract(const std::string& password = "", bool overwrite = false, bool keepBoth = false) const
    {
        return thrownBy([&] { zip.decompress(archive, out, password, overwrite, keepBoth); });
    }
    std::string compress(const std::unordered_map<std::string, Path>& files, const Path& to, int level = 6) const
    {
        return thrownBy([&] { zip.compress(files, to, level); });
    }

    Zip zip{m_log.logger()};
    std::string archive = m_dir / "a.zip";
    std::string out = m_dir / "out";
};

TEST_F(ZipTest, WhatItPacksOthersUnpackAndTheOtherWayRound)
{
    run("mkdir -p in/sub in/none && : > in/empty && seq 1500000 | gzip -n > in/noise");
    const std::unordered_map<std::string, Path> files = {{"empty", m_dir / "in/empty"}, {"noise", m_dir / "in/noise"},
        {"s/text", m_dir.file("in/sub/\xC3\xA9\x01", std::string(1'500'000, 'x') + "!")}};
    for (const int level : {-1, 0, 6, 9}) {
        ASSERT_EQ(compress(files, archive, level), "nothing");
        run("unzip -tqq a.zip && unzip -qq a.zip -d theirs && cat in/empty in/noise in/s*/* > a && cd theirs"
            " && cat empty noise s/text | cmp - ../a && [ $(grep -ao KestaArchive ../a.zip | wc -l) = 3 ]");
        ASSERT_EQ(extract(), "nothing") << level;
        run("diff -r theirs out && rm -r theirs out");
        const std::string bytes = contentOf(archive);
        EXPECT_EQ(bytes.substr(bytes.find("PK\1\2") + 12, 4), "\0\0\x20\0"s) << "day 0 of January 1980";
    }
    run("printf target > in/target && ln -s target in/link"); // comes out as a plain file, of the same content
    for (const std::string options : {"-0", "-9", "-fz", "-P secret", "-0 -P secret", "-fz -P secret"}) {
        run("rm -rf a.zip out && cd in && zip -qry " + options + " ../a.zip .");
        ASSERT_EQ(extract("secret"), "nothing") << options;
        run("diff -r in out && [ ! -L out/link ]");
    }
}

TEST_F(ZipTest, RefusesHostileEntriesAndLeavesNothingBehind)
{
    struct Case {
        std::string why;
        Entry entry;
        std::string expected = kNotRead;
        std::string password = "secret";
    };
    const Case cases[] = {
        {"climbs", {.name = "../f"}, kLeaves + "../f"},
        {"climbs as others write it", {.name = "x\\..\\f"}, kLeaves + "x\\..\\f"},
        {"a NUL inside", {.name = "f\0.txt"s}, "runtime: Entry name holds a NUL: f"},
        {"a name that minizip cuts", emptyEntry(std::string(300, 'n') + "/../"),
            kLeaves + std::string(300, 'n') + "/../"},
        {"wrong checksum", {.crc = 1}},
        {"shorter than it says", {.size = 15}},
        {"no deflate stream", {.data = "\xFF????", .method = 8}},
        {"beyond deflate's ratio", {.data = "\x03\0"s, .size = 3 * 1032, .method = 8}},
        {"more than the archive", {.more = 200}},
        {"unknown method", {.method = 12}, kNotOpened + ". Compression method 12 is not supported: f"},
        {"modern encryption", {.method = 99, .flags = 1}, kNotOpened + ". Only traditional encryption is supported: f"},
        {"no password", {.data = kSecret, .flags = 9}, kBadPassword, ""},
        {"wrong password", {.data = kSecret, .flags = 9}, kBadPassword, "secreT"},
        {"wrong by the checksum's byte", {.data = kSecret, .flags = 1}, kBadPassword},
        {"encrypted, wrong checksum", {.data = kSecret, .crc = 1, .flags = 9}},
        {"encrypted, no deflate stream", {.data = kSecret, .method = 8, .flags = 9}},
    };
    for (const auto& [why, entry, expected, password] : cases) {
        m_dir.file("a.zip", archiveOf({entry}));
        EXPECT_EQ(extract(password), expected) << why;
        run("[ \"$(find . -type f)\" = ./a.zip ]");
    }
}

TEST_F(ZipTest, TreatsExistingFilesAsAsked)
{
    run("mkdir -p out && printf 'something longer than that' > out/f");
    const std::string existing = out + "/f";
    m_dir.file("a.zip", archiveOf({{}, emptyEntry("x/"), {.name = "/y/g"}}));
    ASSERT_EQ(extract(), "nothing");
    ASSERT_EQ(extract("", true, true), "nothing");
    EXPECT_THAT(m_log.lines(), IsSupersetOf({"4 Extracting zip archive " + archive + " at " + out,
                                   "4 " + existing + " already exists, not overwriting or extracting copy.",
                                   "3 Creating directory " + out + "/x", "3 Creating directory " + out + "/y"}));
    EXPECT_EQ(contentOf(out + "/y/g"), "attack at dawn") << "an absolute name, below the destination";
    EXPECT_EQ(contentOf(out + "/f (1)"), "attack at dawn") << "to keep both beats to overwrite";

    m_dir.file("a.zip", archiveOf({{.data = kSecret, .flags = 9}}));
    EXPECT_EQ(extract("secreT", true), kBadPassword);
    EXPECT_EQ(contentOf(existing), "something longer than that") << "a bad password destroys nothing";
    ASSERT_EQ(extract("secret", true), "nothing");
    EXPECT_EQ(contentOf(existing), "attack at dawn");

    m_dir.file("a.zip", archiveOf({{.name = "e", .size = 114, .more = 100}, {.name = "g", .size = 114, .more = 100}}));
    EXPECT_EQ(extract(), "runtime: Failed to read data from archive for file g") << "they overlap";
    for (const char* const name : {"f/", "f/g"}) {
        m_dir.file("a.zip", archiveOf({emptyEntry(name)}));
        EXPECT_EQ(extract("", true), "runtime: Cannot create directory " + out + "/f, file of same name exists");
    }
    m_dir.file("a.zip", archiveOf({{.name = "/etc/f"}}));
    EXPECT_EQ(thrownBy([&] { zip.decompress(archive, "", "", false, false); }), kLeaves + "/etc/f");
}

TEST_F(ZipTest, TellsWhatItCouldNotPackAndLeavesNoArchive)
{
    const std::string source = m_dir.file("source", "text");
    const std::string missing = m_dir / "missing";
    const std::string notOpened =
        "runtime: Could not open zip archive for writing file " + source + " in archive " + archive + " err: ";
    EXPECT_EQ(compress({}, missing + "/a.zip"), "runtime: Could not open zip archive " + missing + "/a.zip");
    EXPECT_EQ(compress({{"f", missing}}, archive), "runtime: Could not open file for reading: " + missing);
    EXPECT_EQ(compress({{"f", archive}}, archive), "runtime: Could not open file for reading: " + archive);
    EXPECT_EQ(compress({{"f", source}}, archive, 10), notOpened + "-2");
    EXPECT_EQ(compress({{std::string(65'536, 'n'), source}}, archive), notOpened + "-102");
    EXPECT_EQ(compress({{"f\0g"s, source}}, archive), notOpened + "-102");
    EXPECT_FALSE(std::filesystem::exists(archive));

    const int next = ::dup(0); // the number that the archive will have, to pack what the kernel tells of it
    (void)::close(next);
    ASSERT_EQ(compress({{"f", "/proc/self/fdinfo/" + std::to_string(next)}}, archive), "nothing");
    ASSERT_EQ(extract(), "nothing");
    EXPECT_THAT(contentOf(out + "/f"), HasSubstr("flags:\t02100001")) << "close-on-exec";
}

TEST_F(ZipTest, AFullDiskIsNeverSilent)
{
    const std::string source = m_dir.file("source", "text");
    EXPECT_EQ(compress({{"f", source}}, "/dev/full"),
        "runtime: Failed to write data from file " + source + " in archive /dev/full err: -1");
    EXPECT_EQ(m_log.lines().back(), "1 Exception while closing zip file: -1");
    EXPECT_EQ(compress({}, "/dev/full"), "runtime: Failed to close zip file archive /dev/full");

    const std::string large = m_dir.file("large", std::string(20'000, 'x'));
    ASSERT_EQ(compress({{"f", large}, {"g", source}}, archive, 0), "nothing");
    EXPECT_TRUE(inChild([&] { // with a limit to the size of files in the place of a full disk
        (void)std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{10'000, RLIM_INFINITY};
        (void)::setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_EQ(extract(), "runtime: Failed to write file during decompression: " + out + "/f");
        for (limit.rlim_cur = std::filesystem::file_size(archive); limit.rlim_cur-- > 20'000;) {
            (void)::setrlimit(RLIMIT_FSIZE, &limit);
            EXPECT_NE(compress({{"f", large}, {"g", source}}, m_dir / "b.zip", 0), "nothing") << limit.rlim_cur;
            EXPECT_FALSE(std::filesystem::exists(m_dir / "b.zip")) << limit.rlim_cur;
        }
        return !HasFailure();
    }));
    EXPECT_FALSE(std::filesystem::exists(out + "/f")) << "half a file";
}

} // namespace
