#pragma once

#include "agent/Export.h"
#include "agent/Path.h"

#include <fstream>
#include <ios>
#include <memory>

namespace agent::filesystem {

/// Opens standard file streams, so that components which need some can be given others.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IFileStreamFactory {
public:
    virtual ~IFileStreamFactory();

    /// The stream adds `in`, or `out`, or both, to the mode as the standard classes do, and like them it is in a
    /// failed state, with the reason in `errno`, if the file cannot be opened so.
    virtual std::unique_ptr<std::ifstream> createInputFileStream(const Path& path, std::ios::openmode mode) const = 0;
    virtual std::unique_ptr<std::ofstream> createOutputFileStream(const Path& path, std::ios::openmode mode) const = 0;
    virtual std::unique_ptr<std::fstream> createInputOutputFileStream(
        const Path& path, std::ios::openmode mode) const = 0;
};

/// Streams over files. What sets them apart from those that open themselves: other programs that the process
/// starts do not inherit their descriptors. Keeps no state; any thread.
class AGENTKIT_API FileStreamFactory : public IFileStreamFactory {
public:
    std::unique_ptr<std::ifstream> createInputFileStream(const Path& path, std::ios::openmode mode) const override;
    std::unique_ptr<std::ofstream> createOutputFileStream(const Path& path, std::ios::openmode mode) const override;
    std::unique_ptr<std::fstream> createInputOutputFileStream(const Path& path, std::ios::openmode mode) const override;
};

} // namespace agent::filesystem
