// Starting `true` through the shell stream and reading its status, against posix_spawn of the same shell command, from
// a small process and from one with 1 GiB of resident memory, whose page tables fork() has to copy.

#include "agent/core/script/CommandStream.h"

#include <benchmark/benchmark.h>

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t kResident = std::size_t{1} << 30;

class Resident {
public:
    Resident()
    {
        if (m_memory == MAP_FAILED) std::abort();
        std::memset(m_memory, 1, kResident);
    }
    Resident(const Resident&) = delete;
    Resident& operator=(const Resident&) = delete;
    ~Resident() { (void)::munmap(m_memory, kResident); }

private:
    void* m_memory = ::mmap(nullptr, kResident, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
};

int runByAgentkit()
{
    static agent::info::Logger logger{agent::info::Logger::Printer()};
    agent::core::script::UnixCommandStream stream(logger, "true", "", false, true, true, true, false);
    return stream.finish();
}

int runBySpawn()
{
    char shell[] = "sh";
    char option[] = "-c";
    char command[] = "true";
    char* const arguments[] = {shell, option, command, nullptr};
    pid_t child = 0;
    int status = -1;
    if (::posix_spawn(&child, "/bin/sh", nullptr, nullptr, arguments, environ) != 0) return -1;
    return ::waitpid(child, &status, 0) == child ? status : -1;
}

void run(benchmark::State& state, int (*runCommand)())
{
    for (auto _ : state) {
        if (runCommand() == 0) continue;
        state.SkipWithError("the command failed");
        break;
    }
}

void runSmall(benchmark::State& state, int (*runCommand)())
{
    run(state, runCommand);
}

void runLarge(benchmark::State& state, int (*runCommand)())
{
    const Resident resident;
    run(state, runCommand);
}

BENCHMARK_CAPTURE(runSmall, agentkit, runByAgentkit)->Name("command/agentkit/small")->UseRealTime();
BENCHMARK_CAPTURE(runSmall, spawn, runBySpawn)->Name("command/posix_spawn/small")->UseRealTime();
BENCHMARK_CAPTURE(runLarge, agentkit, runByAgentkit)->Name("command/agentkit/1_GiB")->UseRealTime();
BENCHMARK_CAPTURE(runLarge, spawn, runBySpawn)->Name("command/posix_spawn/1_GiB")->UseRealTime();

} // namespace
