#include "agent/FileWriters.h"

#include "core/Io.h"

#include "agent/PosixError.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>

namespace agent {

namespace {

[[noreturn]] void throwNotOpened(const Path& path, int error)
{
    throw PosixError("Failed to open: " + path.u8string(), error);
}

[[noreturn]] void throwNotWritten(const Path& path, int error)
{
    throw PosixError("Failed to write all content to: " + path.u8string(), error);
}

struct CloseFile {
    void operator()(std::FILE* file) const noexcept { (void)std::fclose(file); }
};

} // namespace

void truncateAndWrite(info::Logger& /*logger*/, const Path& path, const std::string& content)
{
    UniqueFd fd = io::open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (!fd.isOpen()) throwNotOpened(path, errno);
    if (!io::writeAll(fd.get(), content.data(), content.size())) throwNotWritten(path, errno);
    if (!io::close(std::move(fd))) throwNotWritten(path, errno);
}

void BufferToFile(const Path& path, const std::string& data, const char* mode, unsigned int offset, unsigned int size,
    char terminator)
{
    const auto closeOnExec = std::string(mode) + "e";
    std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.u8string().c_str(), closeOnExec.c_str()));
    if (!file) throwNotOpened(path, errno);

    const std::string_view part = std::string_view(data).substr(std::min<std::size_t>(offset, data.size()), size);
    const bool isWritten = std::fwrite(part.data(), 1, part.size(), file.get()) == part.size() &&
                           (terminator == '\0' || std::fputc(terminator, file.get()) != EOF);
    if (!isWritten) throwNotWritten(path, errno);
    if (std::fclose(file.release()) != 0) throwNotWritten(path, errno);
}

} // namespace agent
