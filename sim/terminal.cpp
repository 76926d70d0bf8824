#include "sim/terminal.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include <editline/readline.h>

namespace sim {
namespace {

constexpr char kPrompt[] = "> ";
constexpr char kEraseLine[] = "\r\033[K";

// The line editor passes no argument to the functions that it calls.
std::function<void(const char*)> g_takeLine;
Terminal::Complete g_complete;
std::vector<std::string> g_words;

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

char** findMatches(const char* text, int start, int) {
    rl_attempted_completion_over = 1;  // no file names
    g_words = g_complete(start == 0);
    return rl_completion_matches(text, nextMatch);
}

void takeEditedLine(char* line) {
    g_takeLine(line);
    std::free(line);
}

}  // namespace

Terminal::Terminal() : m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Terminal::print(const std::string& line) {
    const std::lock_guard lock(m_mutex);
    if (m_editing) {
        m_waiting.push_back(line);
        eventfd_write(m_wake.get(), 1);
    } else {
        std::cout << line << std::endl;
    }
}

void Terminal::readLines(const Execute& execute, const Complete& complete) {
    m_execute = execute;
    g_takeLine = [this](const char* line) { takeLine(line); };
    g_complete = complete;
    rl_attempted_completion_function = findMatches;
    setEditing(true);
    rl_callback_handler_install(kPrompt, takeEditedLine);
    pollfd sources[] = {{STDIN_FILENO, POLLIN, 0}, {m_wake.get(), POLLIN, 0}};
    while (!m_ended && (sources[0].revents & (POLLHUP | POLLERR)) == 0) {
        if (poll(sources, std::size(sources), -1) <= 0)
            continue;  // e.g. the terminal has been resized
        refresh();
        if ((sources[0].revents & POLLIN) != 0)
            rl_callback_read_char();
    }
    setEditing(false);
    rl_callback_handler_remove();
}

// The editor has reset the terminal. Some versions edit the next line by themselves after the
// return.
void Terminal::takeLine(const char* line) {
    setEditing(false);
    if (line != nullptr && *line != '\0')
        add_history(line);
    m_ended = line == nullptr || !m_execute(line);
    if (line == nullptr)
        std::cout << std::endl;
    setEditing(!m_ended);
    if (m_ended)
        rl_set_prompt("");
    else
        rl_callback_handler_install(kPrompt, takeEditedLine);
}

void Terminal::setEditing(bool editing) {
    const std::lock_guard lock(m_mutex);
    printWaiting();
    m_editing = editing;
}

// Prints the lines that wait, and below them the line that is being edited.
void Terminal::refresh() {
    const std::lock_guard lock(m_mutex);
    if (printWaiting())
        rl_forced_update_display();
}

// Whether there were lines, which replace the line that is being edited on the screen.
bool Terminal::printWaiting() {
    eventfd_t ignored = 0;
    eventfd_read(m_wake.get(), &ignored);
    if (m_waiting.empty())
        return false;
    std::cout << kEraseLine;
    for (const std::string& line : m_waiting)
        std::cout << line << '\n';
    std::cout << std::flush;
    m_waiting.clear();
    return true;
}

}  // namespace sim
