#include "FakeConfig.h"
#include "Support.h"
#include "agent/CowFileAutoExpand.h"
#include "agent/CowFileSize.h"

using Lines = std::vector<std::string>;

constexpr unsigned long kMiB = 1UL << 20;
constexpr unsigned long kGiB = 1UL << 30;
constexpr unsigned long kLargest = ~0UL;

struct SizingTest : FileFixture {
    FakeConfig config;
    CowFileSize size{config};
};

TEST_F(SizingTest, DefaultsAndClampsInMiB)
{
    using Case = std::tuple<unsigned long, unsigned long, unsigned long, unsigned long>;
    for (const auto& [volume, byDefault, clampOf100, legacy] :
        {Case(0, 10, 10, 50), Case(20 * kMiB + 1, 10, 10, 50), Case(20 * kMiB + 2, 10, 11, 50),
            Case(50 * kMiB, 10, 25, 20), Case(100 * kMiB + 9, 10, 51, 10), Case(100 * kMiB + 10, 11, 51, 10),
            Case(kGiB, 103, 100, 10), Case(200 * kGiB, 10240, 100, 10), Case(kLargest, 10240, 100, 10)}) {
        EXPECT_EQ(getDefaultCowFileSize(volume, false), byDefault) << volume;
        EXPECT_EQ(getDefaultCowFileSize(volume, true), 10U);
        EXPECT_EQ(getClampedCowFileSize(100, volume), clampOf100) << volume;
        EXPECT_EQ(getClampedCowFileSize(9, volume), 10U);
        EXPECT_EQ(LegacyCowFileSize().getCowFileSize(m_log.logger(), "v", volume, "ext4", false), legacy) << volume;
    }
}

TEST_F(SizingTest, TakesTheConfiguredSizeAndClampsIt)
{
    using Case = std::tuple<const char*, unsigned long, const char*, bool, unsigned long, Lines>;
    const std::string found = "4 Found the volumes.a.b.cowFileSizeMiB configuration option (";
    for (const auto& [why, custom, fileSystem, autoExpand, expected, lines] :
        {Case("0 is none", 0, "ext4", false, 5120, {}), Case("left to grow", 0, "ext4", true, 10, {}),
            Case("FAT", 0, "vfat", false, 4095, {}), Case("FAT has this name only", 0, "VFAT", false, 5120, {}),
            Case("configured", 2048, "ext4", true, 2048, {found + "2048)"}),
            Case("more than half", 100000, "ext4", false, 25600,
                {found + "100000)", "2 Invalid cow file size (100000) Clamping to (25600)"}),
            Case("small", 5, "ext4", false, 10, {found + "5)", "2 Invalid cow file size (5) Clamping to (10)"})}) {
        config.values["volumes.a.b.cowFileSizeMiB"] = custom;
        CapturingLogger ours;
        EXPECT_EQ(size.getCowFileSize(ours.logger(), "a.b", 50 * kGiB, fileSystem, autoExpand), expected) << why;
        EXPECT_EQ(ours.lines(), lines) << why;
    }
    config.failing = "volumes.a.b.cowFileSizeMiB";
    EXPECT_EQ(size.getCowFileSize(m_log.logger(), "a.b", kGiB, "ext4", false), 103U) << "whatever is thrown";
    EXPECT_TRUE(m_log.lines().empty());
    EXPECT_EQ(thrownBy([&] { (void)size.getCustomCowFileSize("c"); }),
        "invalid argument: A custom cow file size for volume c does not exist!");
}

TEST_F(SizingTest, FilesGrowByAStepUpToAReserve)
{
    const std::string stepKey = "volumes.v.autoExpand.stepSizeMiB";
    const std::string reserveKey = "volumes.v.autoExpand.reservedSpaceMiB";
    using Case = std::tuple<const char*, decltype(config.values), unsigned long, bool, unsigned long, unsigned long>;
    for (const auto& [why, values, volume, autoExpand, step, reserve] :
        {Case("nothing configured", {}, 100 * kGiB, true, 10, 15360),
            Case("half of the initial size, rounded up", {}, 1030 * kMiB, false, 52, 155),
            Case("the reserve rounds up", {}, 20 * kMiB / 3 + 1, true, 10, 2),
            Case("no volume is too large", {}, kLargest, true, 10, 2638827906663),
            Case("configured", {{stepKey, 64}, {reserveKey, 1}}, kGiB, true, 64, 1),
            Case("a step is never below 10", {{stepKey, 3}}, 100 * kGiB, true, 10, 15360)}) {
        config.values = values;
        Lines lines;
        for (const auto& [key, value] : values)
            lines.push_back("4 Found the " + key + " configuration option (" + std::to_string(value) + ")");
        CapturingLogger ours;
        const CowFileAutoExpandParamsProvider provider(config, size);
        const auto params = provider.getAutoExpandParams(ours.logger(), "v", volume, "ext4", autoExpand);
        EXPECT_TRUE(params->hasStepSize() && params->hasReservedSpace());
        EXPECT_EQ(params->getStepSize(), step) << why;
        EXPECT_EQ(params->getReservedSpace(), reserve) << why;
        EXPECT_THAT(ours.lines(), testing::UnorderedElementsAreArray(lines)) << why;
    }
    config.failing = stepKey;
    const CowFileAutoExpandParamsProvider provider(config, size);
    EXPECT_EQ(provider.getAutoExpandParams(m_log.logger(), "v", 1030 * kMiB, "ext4", false)->getStepSize(), 52U);
}

TEST_F(SizingTest, FilesCanKeepTheirSize)
{
    const CowFileAutoExpandParamsProvider provider(config, size);
    config.values = {{"volumes.off.autoExpand.disable", 1}, {"volumes.off.cowFileSizeMiB", 7}};
    const std::string end = "() called on CowFileAutoExpandParamsDisabled";
    for (const auto& [volume, fileSystem] : {std::pair("off", "ext4"), {"on", "vfat"}}) {
        const auto params = provider.getAutoExpandParams(m_log.logger(), volume, kGiB, fileSystem, true);
        EXPECT_FALSE(params->hasStepSize() || params->hasReservedSpace());
        EXPECT_EQ(thrownBy([&] { (void)params->getStepSize(); }), "logic: getStepSize" + end);
        EXPECT_EQ(thrownBy([&] { (void)params->getReservedSpace(); }), "logic: getReservedSpace" + end);
    }
    EXPECT_TRUE(m_log.lines().empty()) << "their initial size is not asked for";
    const auto refusal = [](const std::function<void()>& action) { return thrownBy(action).substr(18); };
    EXPECT_EQ(refusal([&] { (void)provider.getCustomAutoExpandStepSize("on"); }), "stepSize is not set");
    EXPECT_EQ(refusal([&] { (void)provider.getCustomAutoExpandReservedSpace("on"); }), "reservedSpace is not set");
    EXPECT_EQ(refusal([] { CowFileAutoExpandParamsEnabled(0, 1); }), "stepSizeMiB must be greater than 0");
}
