#include "cups/queue_operations.h"

#include "cups/printer_names.h"
#include "cups/queue_listing.h"
#include "cups/trusted_queues.h"
#include "cups/usb_discovery.h"
#include "log/log_record.h"
#include "posix/shell_command.h"

namespace qnt {
namespace {

std::string defaultPrinterName;

std::string appliedDefaultId;

// The names come from the listing, whose lines contain neither a zero byte nor a newline, so they
// always have a pattern and a quoted form.
std::string queueStateCommand(const std::string& queueName) {
    if (isOneQueueToLpstat(queueName))
        return "LANG=C lpstat -p " + shellQuote(queueName).value();
    const std::string program = "/^printer " + sedPattern(queueName).value() + " /p";
    return "LANG=C lpstat -p | sed -n " + shellQuote(program).value();
}

bool isQueueEnabled(const std::string& queueName) {
    return runCommand(queueStateCommand(queueName) + " | fgrep -q 'enabled since'") == 0;
}

bool isOnline(const std::string& id) {
    QueueBindingList queues;
    if (!listTrustedQueues(queues, id) || queues.empty())
        return false;
    return isQueueEnabled(queues.back().queueName) && !getUsbProductBySerial(id).empty();
}

}  // namespace

bool isPrinterOnline(const std::string& id) {
    QNT_LOG(3, "isPrinterOnline: %s", id.c_str());
    const bool online = isOnline(id);
    QNT_LOG(3, " - %s", online ? "true" : "false");
    return online;
}

void setDefaultPrinter(const std::string& id) {
    QueueBindingList queues;
    if (!listTrustedQueues(queues, id) || queues.empty() || !confirmBinding(queues.back()))
        return;
    const std::string& queueName = queues.back().queueName;
    const std::string command = "lpadmin -d " + shellQuote(queueName).value();
    QNT_LOG(3, "%s", command.c_str());
    if (runCommand(command) != 0) {
        QNT_LOG(0, "Failed to set default printer '%s'", id.c_str());
        return;
    }
    defaultPrinterName = queueName;
    appliedDefaultId = id;
}

bool isAppliedDefault(const std::string& id) {
    return id == appliedDefaultId;
}

void forgetAppliedDefault(const std::string& id) {
    if (isAppliedDefault(id))
        appliedDefaultId.clear();
}

const std::string& lastDefaultQueueName() {
    return defaultPrinterName;
}

bool deletePrinter(const std::string& queueName, const std::string& id) {
    QNT_LOG(0, "deletePrinter: name=%s id=%s", queueName.c_str(), id.c_str());
    const QueueBinding queue{id, queueNameFor(queueName)};
    const auto word = quotedQueueName(queue.queueName);
    if (queueName.empty() || !word || !confirmBinding(queue))
        return false;
    const std::string command = "lpadmin -x " + *word;
    QNT_LOG(3, "Deleting printer with cmd [%s]", command.c_str());
    forgetTrust(queue);
    if (const int status = runCommand(command); status != 0)
        QNT_LOG(0, "Failed to delete printer '%s', rc=%d", id.c_str(), status);
    return true;
}

void deletePrinterById(const std::string& id) {
    QueueBindingList queues;
    if (rejectInvalidId(id) || !getHostPrinterQueues(queues, kListHostQueues))
        return;
    for (const QueueBinding& queue : queues) {
        if (queue.id == id)
            deletePrinter(queue.queueName, queue.id);
    }
}

}  // namespace qnt
