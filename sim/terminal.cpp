#include "sim/terminal.h"

#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>

#include <editline/readline.h>

namespace sim {
namespace {

constexpr char kPrompt[] = "> ";
constexpr char kEraseLine[] = "\r\033[K";
constexpr std::wint_t kCtrlC = 3;

// Guards the output and the line editor, except while the editor waits for a character.
std::mutex g_mutex;
bool g_editing = false;
bool g_lineIsNew = false;  // nothing has been typed since it began or was discarded

// The editor passes no argument to the functions that it calls.
std::vector<std::string> g_words;

int readCharacter(std::FILE* input) {
    g_mutex.unlock();
    const std::wint_t character = std::fgetwc(input);
    g_mutex.lock();
    if (character == kCtrlC && g_lineIsNew)
        return EOF;
    g_lineIsNew = character == kCtrlC;
    return static_cast<int>(character);
}

// The editor calls it with state 0 first, and frees the matches.
char* nextMatch(const char* text, int state) {
    static std::size_t next = 0;
    if (state == 0)
        next = 0;
    while (next < g_words.size()) {
        const std::string& word = g_words[next++];
        if (word.starts_with(text))
            return strdup(word.c_str());
    }
    return nullptr;
}

char** findMatches(const char* text, int, int) {
    rl_attempted_completion_over = 1;  // no file names
    return rl_completion_matches(text, nextMatch);
}

// Makes Ctrl-C a key while a line is edited. The editor forgets it with each line.
int turnSignalsOff() {
    return rl_parse_and_bind("setty -d -isig");
}

// None at the end of the input.
std::optional<std::string> editLine() {
    const std::lock_guard lock(g_mutex);
    g_editing = g_lineIsNew = true;
    const std::unique_ptr<char, decltype(&std::free)> line(readline(kPrompt), std::free);
    g_editing = false;
    if (line == nullptr) {
        std::cout << std::endl;
        return std::nullopt;
    }
    if (*line != '\0')
        add_history(line.get());
    return line.get();
}

}  // namespace

void printLine(const std::string& line) {
    const std::lock_guard lock(g_mutex);
    std::cout << (g_editing ? kEraseLine : "") << line << std::endl;
    if (g_editing)
        rl_forced_update_display();
}

void readLines(const std::function<bool(const std::string&)>& execute,
               const std::function<std::vector<std::string>()>& words) {
    if (isatty(STDIN_FILENO) == 0) {
        for (std::string line; std::getline(std::cin, line) && execute(line);) {
        }
        return;
    }
    setlocale(LC_CTYPE, "C.UTF-8");  // otherwise the editor drops all but ASCII
    rl_catch_signals = 0;            // a change of the terminal's size would end the input
    rl_getc_function = readCharacter;
    // With an entry function, later releases of the editor add no blank to the word.
    rl_attempted_completion_function = findMatches;
    rl_pre_input_hook = turnSignalsOff;
    rl_initialize();
    rl_parse_and_bind("bind ^C em-kill-line");
    std::optional<std::string> line;
    do {
        g_words = words();
        line = editLine();
    } while (line && execute(*line));
}

}  // namespace sim
