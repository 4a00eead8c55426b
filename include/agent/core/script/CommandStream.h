#pragma once

#include "agent/Export.h"
#include "agent/info/Logger.h"

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>

namespace agent::core::script {

/// A command that was started, and what it prints.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API ICommandStream {
public:
    virtual ~ICommandStream();

    /// Whether output can be read within the time-out, which becomes the time left.
    virtual bool wait(std::chrono::microseconds& timeout) = 0;

    /// Reads one byte, waiting for it. @return  false at the end of the output; `c` is 0 then
    virtual bool getChar(char& c) = 0;

    /// Replaces `out` by the next piece of output, waiting for it. @return  false at the end of the output
    virtual bool getNext(std::string& out) = 0;

    /// Waits for the command to end, and collects its status.
    virtual int finish() = 0;

    /// Kills a command that runs; finish() collects it.
    virtual void kill() = 0;

    /// Whether the end of the output was read.
    virtual bool eof() const = 0;

    /// Whether the status was collected.
    virtual bool finished() const = 0;

    /// Whether the command has ended.
    virtual bool done() const = 0;
};

/// Runs a command line by "/bin/sh" and reads what it prints, standard output and standard error in one stream.
///
///     UnixCommandStream stream(logger, "ls -l", "/var/lib", false, true, true, true, false);
///     std::string listing;
///     for (std::string piece; stream.getNext(piece);) listing += piece;
///     const int status = stream.finish();
///
/// Read before you finish(): a command that prints more than a pipe holds (64 KiB) does not end until somebody reads.
/// The end of the output comes when the last process that holds it lets go of it, which may be long after the shell's.
///
/// The command gets the descriptors 0, 1 and 2 alone, no blocked signals, and SIGPIPE and SIGCHLD at their defaults;
/// other signals that this program ignores stay ignored. If it cannot be started, the output tells why, as perror()
/// would, and the status is 1.
///
/// While a program ignores SIGCHLD the system throws the status of its children away. Calls that wait set the signal
/// to its default meanwhile; to cover the time between them as well, hold a restartChld() as long as the stream. In
/// a program with a SIGCHLD handler the handler is not called for as long as such a call lasts.
///
/// Failed system calls are PosixError; interrupted ones go on.
/// Threads: one at a time a stream; streams on several threads do not disturb each other.
class AGENTKIT_API UnixCommandStream : public ICommandStream {
public:
    /// Starts the command.
    /// @param logger             unused, as are the two reserved flags
    /// @param workingDirectory   where the command runs; if empty, where this program does
    /// @param killOnDestruction  else the destructor waits for as long as the command takes
    /// @param keepSession        else the command leads a session of its own, without a terminal
    /// @param readOutput         else wait(), getChar() and getNext() return false at once and leave their arguments
    /// @throws PosixError        "pipe failed!" or "fork failed!"
    UnixCommandStream(info::Logger& logger, const std::string& command, const std::string& workingDirectory,
        bool reserved1, bool killOnDestruction, bool keepSession, bool readOutput, bool reserved2);
    UnixCommandStream(const UnixCommandStream&) = delete;
    UnixCommandStream& operator=(const UnixCommandStream&) = delete;

    /// Closes the output and waits for the shell, not for what the shell left running.
    ~UnixCommandStream() override;

    /// A time-out of 0 looks once and stays. Any other is lessened by the time that passed, in whole microseconds
    /// and one more; if nothing is left it becomes 0, and the result is false even if output is there.
    bool wait(std::chrono::microseconds& timeout) override;
    bool getChar(char& c) override;

    /// Waits for the first bytes and goes on for as long as more are there at once: with a command that prints faster
    /// than it is read, until its end. Where that may not be, use getChar().
    bool getNext(std::string& out) override;

    /// @return  the exit code, or the number of the signal that ended the command; 0 if it was collected before
    int finish() override;

    /// Sends SIGKILL to the shell, not to what it started.
    void kill() override;

    bool eof() const override;
    bool finished() const override;
    bool done() const override;

    /// Sets SIGCHLD to its default for the whole process, until the last of all guards is released; that one restores
    /// what the first one found.
    /// @return  null if that fails and `throwOnError` is not set
    /// @throws PosixError  "sigaction failed!"
    static std::shared_ptr<void> restartChld(bool throwOnError);

    /// Prints `what` and the text of errno to standard error and ends the process with status 1, calling nothing that
    /// is not allowed between fork and exec. For the child alone.
    [[noreturn]] static void gtfo(const std::string& what);

private:
    [[noreturn]] void execute(const std::string& command, const std::string& workingDirectory) const;
    bool read(char* buffer, unsigned long size, unsigned long& length);

    bool m_killOnDestruction;
    int m_readEnd = -1;
    int m_writeEnd = -1; // the child's; the parent closes it at once
    pid_t m_child = 0;   // 0: collected
    bool m_isAtEnd = false;
    bool m_isOutputRead;
};

} // namespace agent::core::script
