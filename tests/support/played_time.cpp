// sleep() that returns at once, for waits that are many seconds long: linked into a test, or
// preloaded into the service. Each call adds a line, its seconds, to the file QNT_SLEEPS names.

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

extern "C" unsigned sleep(unsigned seconds) {
    if (const char* path = std::getenv("QNT_SLEEPS")) {
        const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        dprintf(file, "%u\n", seconds);
        close(file);
    }
    pthread_testcancel();
    return 0;
}
