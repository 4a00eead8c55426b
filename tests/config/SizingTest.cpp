#include "Support.h"
#include "agent/CowFileAutoExpand.h"
#include "agent/CowFileSize.h"

#include <map>

namespace agent {
namespace {

using test::thrownBy;

constexpr unsigned long kMiB = 1UL << 20;
constexpr unsigned long kGiB = 1UL << 30;
constexpr unsigned long kLargest = ~0UL;

/// A configuration that leaves what it does not have alone, and that can fail.
class FakeConfig : public IConfig {
public:
    void getValue(const std::string& key, bool& value) const override { value = look(key, value ? 1 : 0) != 0; }
    void getValue(const std::string& key, unsigned long& value) const override { value = look(key, value); }
    void getValue(const std::string& /*key*/, std::string& /*value*/) const override {}
    std::string getJSON() const override { return {}; }
    void setJSON(nlohmann::json /*document*/, bool /*replace*/) override {}

    std::map<std::string, unsigned long> values;
    std::string failing;

private:
    unsigned long look(const std::string& key, unsigned long otherwise) const
    {
        if (key == failing) throw 42; // no std::exception
        return values.contains(key) ? values.at(key) : otherwise;
    }
};

TEST(CowFileSize, DefaultsAndClampsInMiB)
{
    struct Case {
        unsigned long volume;
        unsigned long byDefault;
        unsigned long clampOf100;
        unsigned long legacy;
    };
    for (const auto& [volume, byDefault, clampOf100, legacy] : {
             Case{0, 10, 10, 50},
             Case{20 * kMiB + 1, 10, 10, 50},
             Case{20 * kMiB + 2, 10, 11, 50},
             Case{50 * kMiB, 10, 25, 20},
             Case{100 * kMiB + 9, 10, 51, 10},
             Case{100 * kMiB + 10, 11, 51, 10},
             Case{kGiB, 103, 100, 10},
             Case{50 * kGiB, 5120, 100, 10},
             Case{200 * kGiB, 10240, 100, 10},
             Case{kLargest, 10240, 100, 10},
         }) {
        test::CapturingLogger log;
        EXPECT_EQ(getDefaultCowFileSize(volume, false), byDefault) << volume;
        EXPECT_EQ(getDefaultCowFileSize(volume, true), 10U) << volume;
        EXPECT_EQ(getClampedCowFileSize(100, volume), clampOf100) << volume;
        EXPECT_EQ(getClampedCowFileSize(9, volume), 10U) << volume;
        EXPECT_EQ(LegacyCowFileSize().getCowFileSize(log.logger(), "v", volume, "ext4", false), legacy) << volume;
    }
}

TEST(CowFileSize, TakesTheConfiguredSizeAndClampsIt)
{
    struct Case {
        const char* why;
        unsigned long custom;
        const char* fileSystem;
        bool autoExpand;
        unsigned long expected; // of a volume of 50 GiB
        std::vector<std::string> lines;
    };
    const std::string found = "4 Found the volumes.sda1.cowFileSizeMiB configuration option (";
    for (const auto& [why, custom, fileSystem, autoExpand, expected, lines] : std::vector<Case>{
             {"0 is none", 0, "ext4", false, 5120, {}},
             {"left to grow", 0, "ext4", true, 10, {}},
             {"FAT", 0, "vfat", false, 4095, {}},
             {"FAT is told by this name only", 0, "VFAT", false, 5120, {}},
             {"configured", 2048, "ext4", true, 2048, {found + "2048)"}},
             {"more than half", 100000, "ext4", false, 25600,
                 {found + "100000)", "2 Invalid cow file size (100000) Clamping to (25600)"}},
             {"too small", 5, "ext4", false, 10, {found + "5)", "2 Invalid cow file size (5) Clamping to (10)"}},
         }) {
        FakeConfig config;
        config.values["volumes.sda1.cowFileSizeMiB"] = custom;
        test::CapturingLogger log;
        const CowFileSize size(config);
        EXPECT_EQ(size.getCowFileSize(log.logger(), "sda1", 50 * kGiB, fileSystem, autoExpand), expected) << why;
        EXPECT_EQ(log.lines(), lines) << why;
    }
}

TEST(CowFileSize, FallsBackWhateverTheConfigurationThrows)
{
    FakeConfig config;
    config.failing = "volumes.a.b.cowFileSizeMiB";
    test::CapturingLogger log;
    EXPECT_EQ(CowFileSize(config).getCowFileSize(log.logger(), "a.b", kGiB, "ext4", false), 103U);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(thrownBy([&] { (void)CowFileSize(config).getCustomCowFileSize("c"); }),
        "invalid argument: A custom cow file size for volume c does not exist!");
}

TEST(CowFileAutoExpand, HasAStepAndAReserve)
{
    struct Case {
        const char* why;
        std::map<std::string, unsigned long> values; // by the key's last part
        unsigned long volume;
        bool autoExpand;
        unsigned long step;
        unsigned long reserve;
        std::vector<std::string> lines;
    };
    const std::string found = "4 Found the volumes.sda1.autoExpand.";
    for (const auto& [why, values, volume, autoExpand, step, reserve, lines] :
        std::vector<Case>{
            {"nothing configured", {}, 100 * kGiB, true, 10, 15360, {}},
            {"half of the initial size, rounded up", {}, 1030 * kMiB, false, 52, 155, {}},
            {"the reserve rounds up", {}, 20 * kMiB / 3 + 1, true, 10, 2, {}},
            {"no volume is too large", {}, kLargest, true, 10, 2638827906663, {}},
            {"configured", {{"stepSizeMiB", 64}, {"reservedSpaceMiB", 1}}, kGiB, true, 64, 1,
                {found + "stepSizeMiB configuration option (64)", found + "reservedSpaceMiB configuration option (1)"}},
            {"a step is never below 10", {{"stepSizeMiB", 3}}, 100 * kGiB, true, 10, 15360,
                {found + "stepSizeMiB configuration option (3)"}},
        }) {
        FakeConfig config;
        for (const auto& [name, value] : values) config.values["volumes.sda1.autoExpand." + name] = value;
        const CowFileSize size(config);
        test::CapturingLogger log;
        const auto params = CowFileAutoExpandParamsProvider(config, size)
                                .getAutoExpandParams(log.logger(), "sda1", volume, "ext4", autoExpand);
        EXPECT_TRUE(params->hasStepSize() && params->hasReservedSpace()) << why;
        EXPECT_EQ(params->getStepSize(), step) << why;
        EXPECT_EQ(params->getReservedSpace(), reserve) << why;
        EXPECT_EQ(log.lines(), lines) << why;
    }
}

TEST(CowFileAutoExpand, CanBeOff)
{
    /// Fails: files that do not grow need no initial size.
    class NoSize : public ICowFileSize {
    public:
        unsigned long getCowFileSize(info::Logger& /*logger*/, const std::string& /*volume*/,
            unsigned long /*volumeSizeBytes*/, const std::string& /*fileSystemType*/,
            bool /*autoExpand*/) const override
        {
            throw std::runtime_error("no size");
        }
    };
    FakeConfig config;
    config.values["volumes.off.autoExpand.disable"] = 1;
    const NoSize size;
    const CowFileAutoExpandParamsProvider provider(config, size);
    test::CapturingLogger log;
    for (const auto& [volume, fileSystem] : {std::pair("off", "ext4"), {"on", "vfat"}}) {
        const auto params = provider.getAutoExpandParams(log.logger(), volume, kGiB, fileSystem, true);
        EXPECT_FALSE(params->hasStepSize() || params->hasReservedSpace());
        EXPECT_EQ(thrownBy([&] { (void)params->getStepSize(); }),
            "logic: getStepSize() called on CowFileAutoExpandParamsDisabled");
        EXPECT_EQ(thrownBy([&] { (void)params->getReservedSpace(); }),
            "logic: getReservedSpace() called on CowFileAutoExpandParamsDisabled");
    }
    EXPECT_EQ(thrownBy([&] { (void)provider.getAutoExpandParams(log.logger(), "on", kGiB, "ext4", true); }),
        "runtime: no size");
    EXPECT_EQ(
        thrownBy([&] { (void)provider.getCustomAutoExpandStepSize("on"); }), "invalid argument: stepSize is not set");
    EXPECT_EQ(thrownBy([&] { (void)provider.getCustomAutoExpandReservedSpace("on"); }),
        "invalid argument: reservedSpace is not set");
    EXPECT_EQ(thrownBy([] { const CowFileAutoExpandParamsEnabled params(0, 1); }),
        "invalid argument: stepSizeMiB must be greater than 0");
}

} // namespace
} // namespace agent
