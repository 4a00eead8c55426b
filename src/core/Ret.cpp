#include "agent/vnt/common/Ret.h"

#include "agent/PosixError.h"

#include <cstdio>
#include <utility>

namespace vnt::common {

Ret::Logger Ret::logger;

Ret::Ret() = default;

Ret::Ret(int errorCode, const std::string& text)
    : Ret(errorCode == 0 ? -1 : errorCode, text, false)
{
    log();
}

Ret::Ret(int anyCode, const std::string& text, bool alreadyLogged)
    : code(anyCode)
    , message(text)
    , logged(alreadyLogged)
{
}

Ret::Ret(const Ret& other)
    : code(other.code)
    , message(other.message)
    , detail(other.detail)
    , logged(other.logged)
{
    log();
}

Ret& Ret::operator=(const Ret& other)
{
    if (this == &other) return *this;
    code = other.code;
    message = other.message;
    detail = other.detail;
    logged = other.logged;
    log();
    return *this;
}

Ret::~Ret() = default;

void Ret::log()
{
    if (std::exchange(logged, true)) return;
    if (logger) {
        logger(loglevel_error, code, message + " " + detail);
    } else {
        (void)std::printf("%s %s\n", message.c_str(), detail.c_str());
    }
}

void Ret::set_logger(Logger newLogger)
{
    logger = std::move(newLogger);
}

void Ret::throw_on_error(Ret&& r)
{
    if (r.code == 0) return;
    throw agent::PosixError(r.detail.empty() ? r.message : r.detail, r.code);
}

RetNoLog::RetNoLog(int anyCode, const std::string& text)
    : Ret(anyCode, text, true)
{
}

} // namespace vnt::common
