#include "cups/queue_creation.h"

#include <unistd.h>

#include <algorithm>
#include <optional>

#include "cups/printer_names.h"
#include "cups/queue_listing.h"
#include "cups/queue_operations.h"
#include "cups/usb_discovery.h"
#include "log/log_record.h"
#include "posix/shell_command.h"

namespace qnt {
namespace {

constexpr char kFallbackPpdModel[] = "postscript-hp:0/ppd/hplip/HP/hp-color_laserjet_8500-ps.ppd";
constexpr char kDeviceUri[] = "usb://HP/Color%20LaserJet%208500?serial=";

std::string ppdModel;

std::string waitForUsbProduct(const std::string& id) {
    for (int tries = 0; tries < kUsbWaitTries; ++tries) {
        std::string product = getUsbProductBySerial(id);
        if (!product.empty())
            return product;
        sleep(kUsbWaitPauseSeconds);
    }
    return {};
}

void deleteQueuesOf(const std::string& id) {
    QueueBindingList queues;
    if (!listPrinterQueues(queues, id))
        return;
    for (const QueueBinding& queue : queues)
        deletePrinter(queue.queueName, queue.id);
}

std::optional<std::string> addCommand(const std::string& queueName, const std::string& id,
                                      const std::string& description) {
    const auto quotedQueueName = shellQuote(queueName);
    const auto modelWord = shellQuote(ppdModel);
    const auto uriWord = shellQuote(kDeviceUri + id);
    const auto descriptionWord = shellQuote(description);
    if (!quotedQueueName || !modelWord || !uriWord || !descriptionWord)
        return std::nullopt;
    return "lpadmin -p " + *quotedQueueName + " -u allow:all" + " -m " + *modelWord + " -v " +
           *uriWord + " -o printer-error-policy=retry-job -E" + " -D " + *descriptionWord +
           " -L 'Host OS'" + " -o printer-is-shared=false";
}

void createQueue(const std::string& queueName, const std::string& id,
                 const std::string& description) {
    const auto command = addCommand(queueName, id, description);
    if (!command)
        return;
    if (logGetLevel() > 2)
        logRecord("", kServiceTag, 3, "Adding printer: [%s]", command->c_str());
    if (const int status = runCommand(*command); status != 0)
        logRecord("", kServiceTag, 0, "Failed add printer '%s', rc=%d", id.c_str(), status);
}

std::string readPpdModel() {
    CommandOutput output;
    std::string model;
    if (!output.open("LANG=C lpinfo --make-and-model 'HP Color LaserJet 8500 Postscript' -m"
                     " | head -n1 | cut -f1 -d' '"))
        return model;
    char piece[kOutputPieceSize];
    while (output.readLine(piece))
        model += piece;
    if (!model.empty() && model.back() == '\n')
        model.pop_back();
    output.close();
    return model;
}

}  // namespace

void addPrinter(std::string& name, const std::string& id) {
    logRecord("", kServiceTag, 0, "addPrinter: id=%s name=%s", id.c_str(), name.c_str());
    if (rejectInvalidId(id)) {
        name.clear();
        return;
    }
    if (name.empty() && !id.empty())
        name = queueNameFor(waitForUsbProduct(id));
    const std::string description = name;
    name = queueNameFor(name);
    if (name.empty() || id.empty()) {
        logRecord("", kServiceTag, 0, "Cannot get name for printer with id=%s", id.c_str());
        name.clear();
        return;
    }
    if (!quotedQueueName(name)) {
        name.clear();
        return;
    }
    deleteQueuesOf(id);
    if (ppdModel.empty())
        selectPpdModel();
    createQueue(name, id, description);
}

void selectPpdModel() {
    ppdModel = readPpdModel();
    if (ppdModel.empty())
        ppdModel = kFallbackPpdModel;
}

bool renamePrinter(const std::string& currentName, std::string& newName) {
    if (logGetLevel() > 2)
        logRecord("", kServiceTag, 3, "renamePrinter: '%s'->'%s'", currentName.c_str(),
                  newName.c_str());
    newName = queueNameFor(newName);
    if (currentName == newName)
        return true;
    if (!quotedQueueName(newName))  // before the old queue is lost for it
        return false;
    QueueBindingList queues;
    if (!getHostPrinterQueues(queues, kListHostQueues))
        return false;
    const auto queue = std::find_if(
        queues.begin(), queues.end(),
        [&](const QueueBinding& candidate) { return candidate.queueName == currentName; });
    if (queue == queues.end() || rejectInvalidId(queue->id))
        return false;
    deletePrinter(currentName, queue->id);
    std::string createdName = newName;
    addPrinter(createdName, queue->id);
    if (currentName == lastDefaultQueue())
        setDefaultPrinter(queue->id);
    return true;
}

}  // namespace qnt
