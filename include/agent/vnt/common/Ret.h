#pragma once

#include "agent/Export.h"

#include <functional>
#include <string>

namespace vnt::common {

/// Log level of the wire-protocol layer. Other integers may occur and count as errors.
enum loglevel : int {
    loglevel_debug = 0,
    loglevel_information = 200,
    loglevel_error = 500,
};

/// Result of an operation of the transport layer: a code, 0 for success and `errno`-like otherwise, and
/// what failed in words.
///
///     Ret ret = connector.connect();
///     if (ret.code != 0) return ret;
///     Ret::throw_on_error(stream.write(buffer, size, &written));
///
/// An error reports itself to the process-wide logger the moment it is made, and only then: copies carry
/// `logged` along.
///
/// Threads: a value. The process-wide logger is not synchronised: set it once at start-up, before
/// results are made on other threads.
class AGENTKIT_API Ret {
public:
    using Logger = std::function<void(loglevel, int, const std::string&)>;

    /// Success.
    Ret();

    /// An error, reported at once.
    /// @param errorCode  0 is stored as -1, so that this never makes a success
    Ret(int errorCode, const std::string& text);

    Ret(const Ret& other);
    Ret& operator=(const Ret& other);
    virtual ~Ret();

    /// Reports the result unless that was done before: to the process-wide logger at level 500 with the
    /// text message, blank, detail (the blank also when the detail is empty), or as such a line on
    /// standard output when no logger is set. What the logger throws passes through; the result counts
    /// as reported then, too.
    void log();

    /// Replaces the process-wide logger; an empty function switches back to standard output.
    static void set_logger(Logger newLogger);

    /// Does nothing for a success.
    /// @throws agent::PosixError  with the code and the detail, or the message where the detail is empty
    static void throw_on_error(Ret&& r);

    int code = 0;        ///< 0 for success
    std::string message; ///< what failed
    std::string detail;  ///< a second text; mostly empty
    bool logged = true;  ///< reported, or never to be reported

    static Logger logger; ///< empty at start

protected:
    /// For derived results that are not reported.
    Ret(int anyCode, const std::string& text, bool alreadyLogged);
};

/// An error that its producer has already reported in its own words: neither it nor a copy of it is ever
/// logged. The code is stored unchanged, 0 included.
class AGENTKIT_API RetNoLog : public Ret {
public:
    RetNoLog(int anyCode, const std::string& text);
};

} // namespace vnt::common
