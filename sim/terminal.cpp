#include "sim/terminal.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <mutex>
#include <optional>

#include <editline/readline.h>

#include "posix/unique_fd.h"

namespace sim {
namespace {

constexpr char kPrompt[] = "> ";
constexpr char kEraseLine[] = "\r\033[K";

// Guards the output and the line editor, which is not called by several threads at a time.
std::mutex g_mutex;
bool g_editing = false;

// The result of editing; main thread only.
bool g_edited = false;
std::optional<std::string> g_line;

// The editor passes no argument to the functions that it calls.
std::function<std::vector<std::string>(bool)> g_complete;
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

// Gets null at the end of the input. The editor shows the prompt once more when this has returned.
void takeEditedLine(char* line) {
    g_edited = true;
    if (line != nullptr && *line != '\0')
        add_history(line);
    if (line != nullptr)
        g_line = line;
    std::free(line);
    rl_set_prompt("");
}

void setEditing(bool editing) {
    const std::lock_guard lock(g_mutex);
    g_editing = editing;
    if (editing)
        rl_callback_handler_install(kPrompt, takeEditedLine);
    else
        rl_callback_handler_remove();
}

// Returns the line, an empty one if it was discarded, and none if the input is to end. `discarded`:
// whether the line before was, and whether this one is.
std::optional<std::string> editLine(int interrupts, bool& discarded) {
    for (signalfd_siginfo old; read(interrupts, &old, sizeof old) > 0;) {
    }
    g_edited = false;
    g_line.reset();
    setEditing(true);
    bool isTyped = false;
    pollfd sources[] = {{STDIN_FILENO, POLLIN, 0}, {interrupts, POLLIN, 0}};
    while (!g_edited && poll(sources, std::size(sources), -1) > 0 && sources[1].revents == 0 &&
           sources[0].revents == POLLIN) {
        const std::lock_guard lock(g_mutex);
        rl_callback_read_char();
        isTyped = true;
    }
    setEditing(false);
    const bool interrupted = !g_edited && sources[1].revents != 0;
    if (interrupted && (isTyped || !discarded))
        g_line = "";
    discarded = interrupted;
    if (!g_edited || !g_line)
        std::cout << std::endl;
    return g_line;
}

}  // namespace

void printLine(const std::string& line) {
    const std::lock_guard lock(g_mutex);
    std::cout << (g_editing ? kEraseLine : "") << line << std::endl;
    if (g_editing)
        rl_forced_update_display();
}

bool isInterrupted() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGINT) == 1;
}

void readLines(const std::function<bool(const std::string&)>& execute,
               const std::function<std::vector<std::string>(bool)>& complete) {
    if (setlocale(LC_CTYPE, "") == nullptr || MB_CUR_MAX == 1)
        setlocale(LC_CTYPE, "C.UTF-8");  // otherwise the editor drops all but ASCII
    g_complete = complete;
    rl_attempted_completion_function = findMatches;
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
    const qnt::UniqueFd interrupts(signalfd(-1, &interrupt, SFD_CLOEXEC | SFD_NONBLOCK));
    std::optional<std::string> line;
    bool discarded = false;
    do {
        line = editLine(interrupts.get(), discarded);
    } while (line && execute(*line));
}

}  // namespace sim
