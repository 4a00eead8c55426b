#include "agent/info/Decorators.h"

#include "core/Ascii.h"

#include "agent/Format.h"
#include "agent/PosixError.h"
#include "agent/Thread.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <new>
#include <optional>
#include <type_traits>

namespace agent::info {

namespace {

using Time = IDecorator::Time;

/// A text of limited length that needs no memory from elsewhere: a prefix is put together once a line.
template <std::size_t Capacity>
class ShortText {
public:
    ShortText& operator<<(std::string_view text)
    {
        const std::size_t size = std::min(text.size(), m_text.size() - m_size);
        std::ranges::copy_n(text.data(), static_cast<std::ptrdiff_t>(size), m_text.data() + m_size);
        m_size += size;
        return *this;
    }

    /// Adds a number that is not negative, with leading zeros to `width`.
    ShortText& padded(long number, std::size_t width)
    {
        std::array<char, 20> digits{};
        const char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
        const std::string_view text(digits.data(), static_cast<std::size_t>(end - digits.data()));
        static constexpr std::string_view kZeros = "0000000";
        return *this << kZeros.substr(0, width - std::min(width, text.size())) << text;
    }

    std::string_view view() const { return {m_text.data(), m_size}; }
    std::string before(std::string message) const { return std::move(message.insert(0, m_text.data(), m_size)); }

private:
    std::array<char, Capacity> m_text; // NOLINT(cppcoreguidelines-pro-type-member-init): written before it is read
    std::size_t m_size = 0;
};

using Prefix = ShortText<160>;
using DateText = ShortText<50>;

} // namespace

IDecorator::~IDecorator() = default;

// --- the level --------------------------------------------------------------------------------------

const std::array<std::string_view, 5> TagDecorator::m_tags{
    "[CRITICAL:] ",
    "[ERROR:]    ",
    "[WARNING:]  ",
    "[INFO:]     ",
    "[DEBUG:]    ",
};

std::string TagDecorator::decorate(std::string message, Logger::Level level, Time /*when*/) const
{
    const auto index = static_cast<std::size_t>(level);
    if (index >= m_tags.size()) std::abort();
    return std::move(message.insert(0, m_tags[index]));
}

std::string TagDecorator::undecorate(std::string line, Logger::Level& level, Time& /*when*/) const
{
    const auto* const tag = std::ranges::find_if(m_tags, [&](std::string_view text) { return line.starts_with(text); });
    if (tag == m_tags.end()) return line;
    level = static_cast<Logger::Level>(tag - m_tags.begin());
    return std::move(line.erase(0, tag->size()));
}

// --- the date ---------------------------------------------------------------------------------------

namespace {

/// The parts of both stamps that stay the same for a second.
struct SecondText {
    DateText utc;    ///< "2024-05-01T10:34:56."
    DateText local;  ///< "2024-05-01T12:34:56."
    DateText offset; ///< "+0200"
};

void addLocal(DateText& text, const std::tm& parts, const char* format)
{
    static const locale_t classic = ::newlocale(LC_ALL_MASK, "C", nullptr); // lives as long as the process
    std::array<char, 50> buffer{};
    text << std::string_view(buffer.data(), ::strftime_l(buffer.data(), buffer.size(), format, &parts, classic));
}

SecondText textOf(std::chrono::sys_seconds second)
{
    SecondText text;
    text.utc << format_utc(second, "%FT%T.");
    const std::time_t time = second.time_since_epoch().count();
    std::tm parts{};
    if (::localtime_r(&time, &parts) != nullptr) {
        addLocal(text.local, parts, "%FT%T.");
        addLocal(text.offset, parts, "%z");
    }
    return text;
}

/// What `tzset` changes. The names are the system's own copies, kept for as long as the process lives, and only
/// compared by address.
struct Zone {
    long secondsWest = ::timezone;
    int hasDaylightSaving = ::daylight;
    const char* standardName = ::tzname[0];
    const char* daylightName = ::tzname[1];

    bool operator==(const Zone&) const = default;
};

// Rendering a date costs more than everything else in a line, and most lines share their second with the one
// before.
const SecondText& cachedTextOf(std::chrono::sys_seconds second)
{
    struct Cache {
        std::optional<std::chrono::sys_seconds> second;
        Zone zone;
        SecondText text;
    };
    // What is logged by the destructors of static objects comes after those of the thread's.
    static_assert(std::is_trivially_destructible_v<Cache>);
    thread_local Cache cache;
    if (cache.second != second || cache.zone != Zone()) {
        cache.text = textOf(second);
        cache.second = second;
        cache.zone = Zone(); // after rendering, which may have read the zone for the first time
    }
    return cache.text;
}

/// Reads a line from its beginning.
class Parser {
public:
    explicit Parser(std::string_view line)
        : m_rest(line)
    {
    }

    bool skip(char expected)
    {
        if (!m_rest.starts_with(expected)) return false;
        m_rest.remove_prefix(1);
        return true;
    }

    /// Exactly `width` digits.
    template <typename Number>
    bool number(std::size_t width, Number& value)
    {
        if (m_rest.size() < width || !std::ranges::all_of(m_rest.substr(0, width), ascii::isDigit)) return false;
        std::from_chars(m_rest.data(), m_rest.data() + width, value);
        m_rest.remove_prefix(width);
        return true;
    }

    /// "2024-05-01T10:34:56.789", a real date.
    std::optional<std::chrono::sys_time<std::chrono::milliseconds>> stamp()
    {
        int year = 0;
        unsigned int month = 0;
        unsigned int day = 0;
        int hour = 0;
        int minute = 0;
        int second = 0;
        int millisecond = 0;
        const bool complete = number(4, year) && skip('-') && number(2, month) && skip('-') && number(2, day) &&
                              skip('T') && number(2, hour) && skip(':') && number(2, minute) && skip(':') &&
                              number(2, second) && skip('.') && number(3, millisecond);
        const std::chrono::year_month_day date{
            std::chrono::year(year), std::chrono::month(month), std::chrono::day(day)};
        if (!complete || !date.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
        return std::chrono::sys_days(date) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
               std::chrono::seconds(second) + std::chrono::milliseconds(millisecond);
    }

    /// "+0200".
    bool offset()
    {
        int hoursAndMinutes = 0;
        return (skip('+') || skip('-')) && number(4, hoursAndMinutes);
    }

    std::string_view rest() const { return m_rest; }

private:
    std::string_view m_rest;
};

// The clock counts nanoseconds and ends in 2262.
bool isOfTheClock(std::chrono::sys_time<std::chrono::milliseconds> stamp)
{
    using std::chrono::milliseconds;
    return stamp >= std::chrono::ceil<milliseconds>(Time::min()) &&
           stamp <= std::chrono::floor<milliseconds>(Time::max());
}

// Enough to recognise the line; a message can be of any length.
constexpr std::size_t kShownOfALine = 80;

} // namespace

std::string DateDecorator::decorate(std::string message, Logger::Level /*level*/, Time when) const
{
    const auto second = std::chrono::floor<std::chrono::seconds>(when);
    const auto millisecond = std::chrono::floor<std::chrono::milliseconds>(when - second).count();
    const SecondText& text = cachedTextOf(second);

    Prefix prefix;
    (prefix << text.utc.view()).padded(millisecond, 3) << "Z ";
    (prefix << text.local.view()).padded(millisecond, 3) << text.offset.view() << " ";
    return prefix.before(std::move(message));
}

std::string DateDecorator::undecorate(std::string line, Logger::Level& /*level*/, Time& when) const
{
    Parser parser(line);
    const auto utc = parser.stamp();
    if (!utc || !isOfTheClock(*utc) || !parser.skip('Z') || !parser.skip(' ') || !parser.stamp() || !parser.offset() ||
        !parser.skip(' '))
        throw PosixError("Could not parse date out of formatted log message: " + line.substr(0, kShownOfALine), EINVAL);
    when = *utc;
    return std::string(parser.rest());
}

// --- the thread -------------------------------------------------------------------------------------

namespace {

/// A word that reads 0 in a new process, by whatever call it was forked: the kernel wipes its page in the child. Null
/// where the kernel cannot (before 4.14).
std::atomic<unsigned long>* wordWipedOnFork()
{
    static std::atomic<unsigned long>* const word = []() -> std::atomic<unsigned long>* {
        const auto size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        void* const page = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (page == MAP_FAILED) return nullptr;
        if (::madvise(page, size, MADV_WIPEONFORK) != 0) {
            (void)::munmap(page, size);
            return nullptr;
        }
        return new (page) std::atomic<unsigned long>(0);
    }();
    return word;
}

/// A number that is another one in each process of a line of forks; 0 if that cannot be told.
unsigned long processNumber()
{
    static std::atomic<unsigned long> s_last = 0;
    auto* const word = wordWipedOnFork();
    if (word == nullptr) return 0;
    unsigned long number = word->load(std::memory_order_relaxed);
    if (number == 0) {
        const unsigned long fresh = ++s_last;
        if (word->compare_exchange_strong(number, fresh)) number = fresh;
    }
    return number;
}

// Asking the kernel takes longer than all the rest of a line. What is remembered ends with the process.
long rememberedThreadId()
{
    thread_local unsigned long process = 0;
    thread_local long id = 0;
    const unsigned long number = processNumber();
    if (number == 0 || number != process) {
        id = getThreadID();
        process = number;
    }
    return id;
}

} // namespace

std::string ThreadIdDecorator::decorate(std::string message, Logger::Level /*level*/, Time /*when*/) const
{
    Prefix prefix;
    (prefix << "[TID ").padded(rememberedThreadId(), 7) << "] ";
    return prefix.before(std::move(message));
}

// The language is that of the expression \[TID \d+\] and a blank. It is matched by hand because the standard
// library's expressions recurse for each digit, and a line of the wrong kind would overflow the stack.
std::string ThreadIdDecorator::undecorate(std::string line, Logger::Level& /*level*/, Time& /*when*/) const
{
    static constexpr std::string_view kStart = "[TID ";
    if (!line.starts_with(kStart)) return line;
    const auto digits = std::find_if_not(line.begin() + kStart.size(), line.end(), ascii::isDigit);
    if (digits == line.begin() + kStart.size() || digits == line.end() || *digits != ']') return line;
    const auto after = digits + 1;
    line.erase(line.begin(), after != line.end() && *after == ' ' ? after + 1 : after);
    return line;
}

// --- several ----------------------------------------------------------------------------------------

namespace {

constexpr std::size_t kUsualPrefix = 32; // bytes, on the average of date, thread and tag

} // namespace

MultiDecorator::MultiDecorator(std::vector<std::reference_wrapper<const IDecorator>> decorators)
    : m_decorators(std::move(decorators))
{
}

std::string MultiDecorator::decorate(std::string message, Logger::Level level, Time when) const
{
    message.reserve(message.size() + m_decorators.size() * kUsualPrefix); // once, not once a prefix
    // NOLINTNEXTLINE(modernize-loop-convert): clang 14 cannot compile the standard library's reversed view
    for (auto decorator = m_decorators.rbegin(); decorator != m_decorators.rend(); ++decorator)
        message = decorator->get().decorate(std::move(message), level, when);
    return message;
}

std::string MultiDecorator::undecorate(std::string line, Logger::Level& level, Time& when) const
{
    for (const IDecorator& decorator : m_decorators) line = decorator.undecorate(std::move(line), level, when);
    return line;
}

} // namespace agent::info
