// Random bytes on their way through a real shell and a real sed.

#include "cups/printer_names.h"
#include "posix/shell_command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "tests/support/private_cups.h"

namespace qnt {
namespace {

constexpr int kBatches = 10;
constexpr int kTextsOfABatch = 300;  // keeps a command below the 128 KiB of one argument

std::mt19937 randomBits{20261122};

// Up to 40 bytes from 1 to 255, every other one of those that a shell or sed takes specially, with
// another byte for the newline.
std::string randomText(char newline) {
    const std::string specials = "'\"\\$`*.[]^/&;|(){}+?~#!-=nwd \t\n";
    std::string text(randomBits() % 41, ' ');
    for (char& byte : text)
        byte = randomBits() % 2 == 0 ? specials[randomBits() % specials.size()]
                                     : static_cast<char>(1 + randomBits() % 255);
    std::replace(text.begin(), text.end(), '\n', newline);
    return text;
}

// The line with a byte replaced, put in or taken out.
std::string neighbour(const std::string& line) {
    std::string other = line;
    while (other == line)
        other.replace(randomBits() % (other.size() + 1), randomBits() % 2,
                      randomText('*').substr(0, 1));
    return other;
}

TEST(OutsideText, PassesThroughAShellAsItIs) {
    EXPECT_EQ(shellQuote("Office Laser"), "'Office Laser'");
    EXPECT_EQ(shellQuote(std::string_view("a\0b", 3)), std::nullopt);
    for (int batch = 0; batch < kBatches; ++batch) {
        std::string command = "printf '%s\\0'";
        std::string expected;
        for (int i = 0; i < kTextsOfABatch; ++i) {
            const std::string text = randomText('\n');
            command += ' ' + *shellQuote(text);
            expected += text + '\0';
        }
        ASSERT_EQ(sim::commandOutput(command), expected) << "batch " << batch;
    }
}

TEST(OutsideText, IsMatchedBySedAsItselfAlone) {
    EXPECT_EQ(sedPattern(std::string_view("a\0b", 3)), std::nullopt);
    EXPECT_EQ(sedPattern("a\nb"), std::nullopt);
    for (int batch = 0; batch < kBatches; ++batch) {
        std::string command = "printf '%s\\n'";
        std::string program;
        std::string expected;
        for (int number = 1; number < 2 * kTextsOfABatch; number += 2) {
            const std::string line = randomText('*');
            command += ' ' + *shellQuote('=' + line) + ' ' + *shellQuote('=' + neighbour(line));
            program += std::to_string(number) + ',' + std::to_string(number + 1) + "s/^=\\(" +
                       *sedPattern(line) + "\\)$/<\\1>/p\n";
            expected += '<' + line + ">\n";
        }
        command += " | LC_ALL=C sed -n " + *shellQuote(program);
        ASSERT_EQ(sim::commandOutput(command), expected) << "batch " << batch;
    }
}

}  // namespace
}  // namespace qnt
