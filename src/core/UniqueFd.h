#pragma once

#include <unistd.h>

#include <utility>

namespace agent {

/// Owns a descriptor; -1 owns nothing.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) noexcept
        : m_fd(fd)
    {
    }
    UniqueFd(UniqueFd&& other) noexcept
        : m_fd(other.release())
    {
    }
    UniqueFd& operator=(UniqueFd other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    // Never retried: after EINTR the number may already be another thread's file.
    ~UniqueFd()
    {
        if (m_fd >= 0) (void)::close(m_fd);
    }

    int get() const noexcept { return m_fd; }
    bool isOpen() const noexcept { return m_fd >= 0; }
    int release() noexcept { return std::exchange(m_fd, -1); }

private:
    int m_fd;
};

} // namespace agent
