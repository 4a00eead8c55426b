#include "agent/File.h"

#include "core/Io.h"

#include "agent/PosixError.h"
#include "agent/file/Operations.h"

#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>

namespace agent {

namespace {

constexpr std::size_t kChunk = 65'536; // bytes asked for at once where the size is unknown

constexpr FileOpenMode kReadWrite = FileOpenMode::Read | FileOpenMode::Write;

int openFlags(FileOpenMode mode)
{
    const auto has = [mode](FileOpenMode bits) { return (mode & bits) == bits; };

    const int writing = has(FileOpenMode::Read) ? O_RDWR : O_WRONLY;
    int flags = has(FileOpenMode::Write) ? writing : O_RDONLY;
    if (has(FileOpenMode::Append)) flags |= writing | O_APPEND;
    if (has(FileOpenMode::Create)) flags |= O_CREAT;
    if (has(FileOpenMode::Truncate)) flags |= writing | O_TRUNC;
    return flags;
}

// From the flags and not from the mode: the stream must be able to do what the descriptor can, and must not
// truncate a second time.
std::ios::openmode streamMode(int flags)
{
    std::ios::openmode mode = std::ios::binary;
    if ((flags & O_ACCMODE) != O_WRONLY) mode |= std::ios::in;
    if ((flags & O_ACCMODE) != O_RDONLY) mode |= std::ios::out;
    if ((flags & O_APPEND) != 0) mode |= std::ios::app;
    return mode;
}

/// A stream buffer over a descriptor, which it owns.
class DescriptorBuffer : public __gnu_cxx::stdio_filebuf<char> {
public:
    using stdio_filebuf::stdio_filebuf;

    /// Bytes that were read from the descriptor and not yet from here.
    std::streamsize readAhead() const { return egptr() - gptr(); }
};

} // namespace

class File::Impl {
public:
    Impl(info::Logger& logger, Path path)
        : m_logger(logger)
        , m_path(std::move(path))
    {
    }

    void open(FileOpenMode mode, FileCreateMode createMode);
    void openForReading();

    std::size_t read(char* out, std::size_t size);
    void readRest(std::string& out);
    void seek(long offset, int whence);
    std::string slurp();
    void write(const char* data, std::size_t size);

    const Path& path() const { return m_path; }
    std::iostream& stream() { return m_stream; }

private:
    void close();
    void flush();
    void giveBackReadAhead();
    [[noreturn]] void fail(const char* call) const;

    info::Logger& m_logger;
    Path m_path;
    int m_fd = -1;                            // owned by m_buffer
    std::optional<DescriptorBuffer> m_buffer; // empty while closed
    std::iostream m_stream{nullptr};
};

void File::Impl::close()
{
    m_stream.rdbuf(nullptr);
    m_buffer.reset();
    m_fd = -1;
}

void File::Impl::open(FileOpenMode mode, FileCreateMode createMode)
{
    close();
    const int flags = openFlags(mode);
    UniqueFd fd = io::open(m_path, flags, static_cast<mode_t>(createMode) & 0777);
    if (!fd.isOpen()) {
        const int error = errno;
        throw PosixError("Failed to open file " + m_path.u8string(), error);
    }
    const int number = fd.release(); // a buffer that fails once it is open closes the descriptor itself
    m_buffer.emplace(number, streamMode(flags));
    if (!m_buffer->is_open()) {
        const int error = errno;
        fd = UniqueFd(number);
        m_buffer.reset();
        throw PosixError("Failed to open stream " + m_path.u8string(), error);
    }
    m_fd = number;
    m_stream.rdbuf(&*m_buffer);
    info::Logger::Entry(m_logger, info::Logger::DEBUG)
        << "File " << m_path.u8string() << " successfully opened with handle " << m_fd;
}

void File::Impl::openForReading()
{
    if (m_fd < 0) open(FileOpenMode::Read, DEFAULT_CREATE_MODE);
}

void File::Impl::fail(const char* call) const
{
    const int error = errno;
    throw PosixError(io::failed(call, m_path), error);
}

void File::Impl::flush()
{
    if (m_buffer && m_buffer->pubsync() != 0) fail("write");
}

// Moves the descriptor back to where the stream's reader is. What has no positions keeps its read-ahead: its
// writes go elsewhere.
void File::Impl::giveBackReadAhead()
{
    if (m_buffer && m_buffer->readAhead() > 0) (void)m_buffer->pubseekpos(m_buffer->pubseekoff(0, std::ios::cur));
}

std::size_t File::Impl::read(char* out, std::size_t size)
{
    flush();
    std::size_t done = 0;
    // In more than one piece after a putback: the buffer shows that character by itself.
    while (m_buffer && done < size && m_buffer->readAhead() > 0)
        done += static_cast<std::size_t>(
            m_buffer->sgetn(out + done, std::min(m_buffer->readAhead(), static_cast<std::streamsize>(size - done))));
    while (done < size) {
        const ssize_t got = io::read(m_fd, out + done, size - done);
        if (got < 0) fail("read");
        if (got == 0) break;
        done += static_cast<std::size_t>(got);
    }
    return done;
}

void File::Impl::readRest(std::string& out)
{
    std::string rest;
    std::size_t size = 0;
    do {
        rest.resize(size + std::max(kChunk, size));
        size += read(rest.data() + size, rest.size() - size);
    } while (size == rest.size());
    rest.resize(size);
    out = std::move(rest);
}

std::string File::Impl::slurp()
{
    flush();
    std::string content;
    std::size_t size = 0;
    while (true) {
        content.resize(size + std::max(kChunk, size));
        const ssize_t got = io::retry(
            [&] { return ::pread64(m_fd, content.data() + size, content.size() - size, static_cast<off64_t>(size)); });
        if (got < 0 && errno == ESPIPE) break;
        if (got < 0) fail("pread");
        size += static_cast<std::size_t>(got);
        if (got == 0) {
            content.resize(size);
            return content;
        }
    }
    readRest(content);
    return content;
}

void File::Impl::seek(long offset, int whence)
{
    flush();
    giveBackReadAhead();
    if (::lseek64(m_fd, offset, whence) < 0) fail("lseek");
    if (m_buffer) m_stream.clear();
}

void File::Impl::write(const char* data, std::size_t size)
{
    flush();
    giveBackReadAhead();
    if (!io::writeAll(m_fd, data, size)) fail("write");
}

File::File(info::Logger& logger)
    : File(logger, file::getTempFile("KESTA_"))
{
    try {
        m_impl->open(kReadWrite, DEFAULT_CREATE_MODE);
    } catch (...) {
        (void)::unlink(getFilePath().u8string().c_str()); // best effort; the first error is the one to report
        throw;
    }
}

File::File(info::Logger& logger, const Path& path)
    : m_impl(std::make_unique<Impl>(logger, path))
{
}

File::File(info::Logger& logger, const Path& path, FileOpenMode mode)
    : File(logger, path, mode, DEFAULT_CREATE_MODE)
{
}

File::File(info::Logger& logger, const Path& path, FileOpenMode mode, FileCreateMode createMode)
    : File(logger, path)
{
    m_impl->open(mode, createMode);
}

File::~File() = default;

void File::open(FileOpenMode mode, FileCreateMode createMode) const
{
    m_impl->open(mode, createMode);
}

long File::read(void* buffer, long size) const
{
    m_impl->openForReading();
    return static_cast<long>(m_impl->read(static_cast<char*>(buffer), static_cast<std::size_t>(std::max(size, 0L))));
}

void File::read(std::string& out) const
{
    m_impl->openForReading();
    m_impl->readRest(out);
}

void File::seek(long offset, int whence) const
{
    m_impl->seek(offset, whence);
}

std::string File::slurp() const
{
    m_impl->openForReading();
    return m_impl->slurp();
}

void File::write(const void* data, unsigned long size) const
{
    m_impl->write(static_cast<const char*>(data), size);
}

void File::write(const std::string& data) const
{
    m_impl->write(data.data(), data.size());
}

std::iostream& File::getStream()
{
    return m_impl->stream();
}

const Path& File::getFilePath() const
{
    return m_impl->path();
}

} // namespace agent
