#include "agent/Path.h"
#include "Support.h"

#include <unordered_set>

TEST(Path, ComposesWithOneSlashBetween)
{
    const std::pair<Path, std::string> cases[] = {{"a/", "a"}, {"/", "/"}, {"a//", "a/"}, {"//", "/"},
        {Path("a/") / "/b/", "a/b"}, {Path("a") / "//b", "a//b"}, {Path() / "b", "/b"}, {Path("/") / Path("b"), "/b"},
        {Path("a") / "", "a"}, {Path("a") / "/", "a"}, {Path("a") / "//", "a"}, {Path("a") / "../b", "a/../b"},
        {Path("a") + "b", "ab"}, {Path("a/") + Path("/b"), "a/b"}, {Path("/") + std::string("/b/"), "/b"},
        {Path("a") + "", "a"}, {Path::convert(L"\u00E4/b/"), "\xC3\xA4/b"}, {Path::convert("x/"), "x"}};
    for (const auto& [path, expected] : cases) EXPECT_EQ(path.u8string(), expected);
}

TEST(Path, SplitsAtTheLastSlash)
{
    const auto parts = [](const Path& path) { return path.filePath().portable_string() + " | " + path.fileName(); };
    EXPECT_EQ(parts("/a/b.txt"), "/a | b.txt");
    EXPECT_EQ(parts("/a"), "/ | a");
    EXPECT_EQ(parts("a"), " | a");
    EXPECT_EQ(parts("/"), "/ | ");
    EXPECT_EQ((std::unordered_set<Path>{"a/b", Path("a") / "b", "a/b/", "c"}).size(), 2U);
}
