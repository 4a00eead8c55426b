#include "agent/Path.h"

#include <gtest/gtest.h>

#include <string>
#include <unordered_set>

namespace agent {
namespace {

TEST(Path, ComposesWithOneSlashBetween)
{
    struct Case {
        const char* why;
        Path path;
        std::string expected;
    };
    const Case cases[] = {
        {"a slash at the end goes", Path("a/"), "a"},
        {"the root stays", Path("/"), "/"},
        {"only one goes", Path("a//"), "a/"},
        {"two slashes are the root", Path("//"), "/"},
        {"slashes meet", Path("a/") / "/b/", "a/b"},
        {"one slash at each end of a part", Path("a") / "//b", "a//b"},
        {"onto nothing", Path("") / "b", "/b"},
        {"onto the root", Path("/") / Path("b"), "/b"},
        {"nothing", Path("a") / "", "a"},
        {"nothing but slashes", Path("a") / "//", "a"},
        {"no slash of its own", Path("a") + "b", "ab"},
        {"plus brings its slash", Path("a") + Path("/b"), "a/b"},
        {"plus at the root", Path("/") + "/b/", "/b"},
        {"dots mean nothing", Path("a") / "../b", "a/../b"},
        {"wide", Path::convert(L"\u00E4/b/"), "\xC3\xA4/b"},
        {"narrow", Path::convert(std::string("x/")), "x"},
    };
    for (const auto& [why, path, expected] : cases) {
        EXPECT_EQ(path.u8string(), expected) << why;
        EXPECT_EQ(path.portable_string(), expected) << why;
    }
}

TEST(Path, SplitsAtTheLastSlash)
{
    const auto parts = [](const std::string& text) {
        return Path(text).filePath().u8string() + " | " + Path(text).fileName();
    };
    EXPECT_EQ(parts("/a/b.txt"), "/a | b.txt");
    EXPECT_EQ(parts("/a"), "/ | a");
    EXPECT_EQ(parts("a"), " | a");
    EXPECT_EQ(parts("/"), "/ | ");
    EXPECT_EQ(parts(""), " | ");
}

TEST(Path, IsAKey)
{
    const std::unordered_set<Path> paths{Path("a/b"), Path("a") / "b", Path("a/b/"), Path("c")};
    EXPECT_EQ(paths.size(), 2U);
    EXPECT_NE(Path("a"), Path("b"));
}

} // namespace
} // namespace agent
