#include "cups/queue_operations.h"

#include "cups/outside_text.h"
#include "cups/queue_listing.h"
#include "cups/shell.h"
#include "cups/usb_discovery.h"
#include "log/log_record.h"

namespace qnt {
namespace {

std::string defaultPrinterName;

bool isQueueEnabled(const std::string& queueName) {
    // lpstat would take an argument that begins with "-" for an option of its own.
    if (queueName.front() == '-') {
        logRecord("", kServiceTag, 0, "Refused to ask lpstat about queue '%s'", queueName.c_str());
        return false;
    }
    const auto word = queueWord(queueName);
    return word && runCommand("LANG=C lpstat -p " + *word + " | fgrep -q 'enabled since'") == 0;
}

bool isOnline(const std::string& id) {
    QueueBindingList queues;
    if (!listPrinterQueues(queues, id) || queues.empty())
        return false;
    return isQueueEnabled(queues.back().queueName) && !getUsbProductBySerial(id).empty();
}

}  // namespace

bool isPrinterOnline(const std::string& id) {
    if (logGetLevel() > 2)
        logRecord("", kServiceTag, 3, "isPrinterOnline: %s", id.c_str());
    const bool online = isOnline(id);
    if (logGetLevel() > 2)
        logRecord("", kServiceTag, 3, " - %s", online ? "true" : "false");
    return online;
}

void setDefaultPrinter(const std::string& id) {
    QueueBindingList queues;
    if (!listPrinterQueues(queues, id) || queues.empty())
        return;
    const std::string& queueName = queues.back().queueName;
    const auto word = queueWord(queueName);
    if (!word)
        return;
    const std::string command = "lpadmin -d " + *word;
    if (logGetLevel() > 2)
        logRecord("", kServiceTag, 3, "%s", command.c_str());
    if (runCommand(command) == 0)
        defaultPrinterName = queueName;
    else
        logRecord("", kServiceTag, 0, "Failed to set default printer '%s'", id.c_str());
}

const std::string& lastDefaultQueue() {
    return defaultPrinterName;
}

void deletePrinter(const std::string& queueName, const std::string& id) {
    logRecord("", kServiceTag, 0, "deletePrinter: name=%s id=%s", queueName.c_str(), id.c_str());
    if (queueName.empty())
        return;
    const auto word = queueWord(withoutBlanks(queueName));
    if (!word)
        return;
    const std::string command = "lpadmin -x " + *word;
    if (logGetLevel() > 2)
        logRecord("", kServiceTag, 3, "Deleting printer with cmd [%s]", command.c_str());
    if (const int status = runCommand(command); status != 0)
        logRecord("", kServiceTag, 0, "Failed to delete printer '%s', rc=%d", id.c_str(), status);
}

void deletePrinterById(const std::string& id) {
    QueueBindingList queues;
    if (!getHostPrinterQueues(queues, kListHostQueues))
        return;
    for (const QueueBinding& queue : queues) {
        if (queue.id == id)
            deletePrinter(queue.queueName, queue.id);
    }
}

}  // namespace qnt
