#include "cups/queue_operations.h"

#include <optional>

#include "cups/printer_names.h"
#include "cups/queue_listing.h"
#include "cups/trusted_queues.h"
#include "cups/usb_discovery.h"
#include "log/log_record.h"
#include "posix/shell_command.h"

namespace qnt {
namespace {

std::string defaultPrinterName;
std::string g_appliedDefaultId;

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

std::optional<QueueBinding> queueOf(const std::string& id) {
    QueueBindingList queues;
    if (!listTrustedQueues(queues, id) || queues.empty())
        return std::nullopt;
    return queues.back();
}

bool isOnline(const std::string& id) {
    const auto queue = queueOf(id);
    return queue && isQueueEnabled(queue->queueName) && !getUsbProductBySerial(id).empty();
}

}  // namespace

bool isPrinterOnline(const std::string& id) {
    QNT_LOG(kLogDetail, "isPrinterOnline: %s", id.c_str());
    const bool online = isOnline(id);
    QNT_LOG(kLogDetail, " - %s", online ? "true" : "false");
    return online;
}

void setDefaultPrinter(const std::string& id) {
    const auto queue = queueOf(id);
    if (!queue || !confirmBinding(*queue))
        return;
    const std::string command = "lpadmin -d " + shellQuote(queue->queueName).value();
    QNT_LOG(kLogDetail, "%s", command.c_str());
    if (runCommand(command) != 0) {
        QNT_LOG(kLogAlways, "Failed to set default printer '%s'", id.c_str());
        return;
    }
    defaultPrinterName = queue->queueName;
    g_appliedDefaultId = id;
}

bool isAppliedDefault(const std::string& id) {
    return id == g_appliedDefaultId;
}

void forgetAppliedDefault(const std::string& id) {
    if (isAppliedDefault(id))
        g_appliedDefaultId.clear();
}

const std::string& lastDefaultQueueName() {
    return defaultPrinterName;
}

bool deletePrinter(const std::string& queueName, const std::string& id) {
    QNT_LOG(kLogAlways, "deletePrinter: name=%s id=%s", queueName.c_str(), id.c_str());
    const QueueBinding queue{id, queueNameFor(queueName)};
    const auto word = quotedQueueName(queue.queueName);
    if (queueName.empty() || !word || !confirmBinding(queue))
        return false;
    const std::string command = "lpadmin -x " + *word;
    QNT_LOG(kLogDetail, "Deleting printer with cmd [%s]", command.c_str());
    forgetTrust(queue);
    if (const int status = runCommand(command); status != 0)
        QNT_LOG(kLogAlways, "Failed to delete printer '%s', rc=%d", id.c_str(), status);
    return true;
}

void deletePrinterById(const std::string& id) {
    QueueBindingList queues;
    if (!checkPrinterId(id) || !getHostPrinterQueues(queues, kListHostQueues))
        return;
    for (const QueueBinding& queue : queues) {
        if (queue.id == id)
            deletePrinter(queue.queueName, queue.id);
    }
}

}  // namespace qnt
