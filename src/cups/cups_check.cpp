#include "cups/cups_check.h"

#include <unistd.h>

#include "log/log_record.h"
#include "posix/shell_command.h"

namespace qnt {
namespace {

bool waitForCups() {
    for (int tries = 1; !isCupsAnswering(); ++tries) {
        if (tries == kCupsTries)
            return false;
        sleep(kCupsPauseSeconds);
    }
    return true;
}

}  // namespace

bool isCupsAnswering() {
    return runCommand("lpstat >/dev/null 2>&1") == 0;
}

bool checkCups() {
    if (runCommand("type lpadmin >/dev/null 2>&1") != 0) {
        QNT_LOG(kLogAlways, "lpadmin not found in system");
        return false;
    }
    if (!waitForCups()) {
        QNT_LOG(kLogAlways, "cups is not responding");
        return false;
    }
    return true;
}

}  // namespace qnt
