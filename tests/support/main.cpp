// Every suite runs twice: in the classic locale, and in one that groups digits and has a decimal comma, which no
// message, date or formatted count may show.

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <locale>

int main(int argc, char** argv)
{
    if (const char* const name = std::getenv("AGENTKIT_TEST_LOCALE")) {
        std::locale::global(std::locale(name)); // throws, and so ends the run, if it is not there
        (void)std::setlocale(LC_MESSAGES, "C"); // the system's own texts may well be translated
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
