#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace agent::bench {

/// Prints the usual lines and, after the last of them, a table that holds the library against its peers.
///
/// A benchmark is registered as "group/variant/case", for instance "crc32c/agentkit/4096" with the peers
/// "crc32c/libisal/4096" and "crc32c/read/4096". The table has a line for each group and case that has a
/// variant "agentkit", and shows for each peer how many times longer than agentkit it takes: above 1 the
/// library is the faster one. Of repetitions the fastest counts.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter();

    void ReportRuns(const std::vector<Run>& runs) override;
    void Finalize() override;

private:
    struct Timing {
        std::string variant;
        double nanoseconds;
        double bytesPerSecond; // 0: not given
    };
    using Key = std::pair<std::string, std::string>; // group, case

    void remember(const Run& run);
    void printLine(const Key& key, const std::vector<Timing>& timings) const;

    std::vector<Key> m_order; // as first seen
    std::map<Key, std::vector<Timing>> m_timings;
};

} // namespace agent::bench
