#include "app/cups_check.h"

#include <unistd.h>

#include "cups/shell.h"
#include "log/log_record.h"

namespace qnt {
namespace {

bool doesCupsRespond() {
    for (int tries = 1; runCommand("lpstat >/dev/null 2>&1") != 0; ++tries) {
        if (tries == kCupsTries)
            return false;
        sleep(kCupsPauseSeconds);
    }
    return true;
}

}  // namespace

bool isCupsAvailable() {
    if (runCommand("type lpadmin >/dev/null 2>&1") != 0) {
        logRecord("", kServiceTag, 0, "lpadmin not found in system");
        return false;
    }
    if (!doesCupsRespond()) {
        logRecord("", kServiceTag, 0, "cups is not responding");
        return false;
    }
    return true;
}

}  // namespace qnt
