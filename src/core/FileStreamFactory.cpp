#include "agent/filesystem/FileStreamFactory.h"

#include "core/Io.h"

#include <ext/stdio_filebuf.h>
#include <fcntl.h>

#include <cerrno>
#include <optional>

namespace agent::filesystem {

namespace {

// As the standard's table of open modes has them ([filebuf.members]); nothing for combinations that it lacks.
std::optional<int> openFlags(std::ios::openmode mode)
{
    const auto has = [mode](std::ios::openmode bit) { return (mode & bit) != 0; };
    const bool in = has(std::ios::in);
    const bool append = has(std::ios::app);
    const bool out = has(std::ios::out);
    if ((has(std::ios::trunc) && (append || !out)) || !(in || out || append)) {
        errno = EINVAL;
        return std::nullopt;
    }
    if (!append && !out) return O_RDONLY;

    const int writing = in ? O_RDWR : O_WRONLY;
    if (append) return writing | O_CREAT | O_APPEND;
    return has(std::ios::trunc) || !in ? writing | O_CREAT | O_TRUNC : writing;
}

std::filebuf openBuffer(const Path& path, std::ios::openmode mode)
{
    const std::optional<int> flags = openFlags(mode);
    if (!flags) return {};
    UniqueFd fd = io::open(path, *flags, 0666);
    if (!fd.isOpen()) return {};

    const int number = fd.release(); // a buffer that fails once it is open closes the descriptor itself
    __gnu_cxx::stdio_filebuf<char> buffer(number, mode & ~std::ios::ate);
    if (!buffer.is_open()) fd = UniqueFd(number);
    // A stream that only appends reports the end as its position from the start; a pipe has none to report.
    if ((mode & (std::ios::in | std::ios::app)) == std::ios::app) (void)buffer.pubseekoff(0, std::ios::end);
    if ((mode & std::ios::ate) != 0 && buffer.pubseekoff(0, std::ios::end) == std::streampos(-1)) buffer.close();
    return {static_cast<std::filebuf&&>(buffer)};
}

template <typename Stream>
std::unique_ptr<Stream> openStream(const Path& path, std::ios::openmode mode)
{
    auto stream = std::make_unique<Stream>();
    *stream->rdbuf() = openBuffer(path, mode);
    if (!stream->is_open()) stream->setstate(std::ios::failbit);
    return stream;
}

} // namespace

IFileStreamFactory::~IFileStreamFactory() = default;

std::unique_ptr<std::ifstream> FileStreamFactory::createInputFileStream(const Path& path, std::ios::openmode mode) const
{
    return openStream<std::ifstream>(path, mode | std::ios::in);
}

std::unique_ptr<std::ofstream> FileStreamFactory::createOutputFileStream(
    const Path& path, std::ios::openmode mode) const
{
    return openStream<std::ofstream>(path, mode | std::ios::out);
}

std::unique_ptr<std::fstream> FileStreamFactory::createInputOutputFileStream(
    const Path& path, std::ios::openmode mode) const
{
    return openStream<std::fstream>(path, mode);
}

} // namespace agent::filesystem
