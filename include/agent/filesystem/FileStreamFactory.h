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

    /// As in the standard classes, the mode of an input stream includes `in`, that of an output stream `out`, and
    /// that of an input and output stream what the caller says. A file that cannot be opened so gives a stream in
    /// a failed state, with the reason in `errno`; a new file has mode 0666, lessened by the umask.
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
