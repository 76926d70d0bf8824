#include "cups/queue_creation.h"

#include <unistd.h>

#include <algorithm>

#include "cups/printer_names.h"
#include "cups/queue_listing.h"
#include "cups/queue_operations.h"
#include "cups/trusted_queues.h"
#include "cups/usb_discovery.h"
#include "log/log_record.h"
#include "posix/shell_command.h"

namespace qnt {
namespace {

constexpr char kFallbackPpdModel[] = "postscript-hp:0/ppd/hplip/HP/hp-color_laserjet_8500-ps.ppd";
constexpr char kDeviceUriPrefix[] = "usb://HP/Color%20LaserJet%208500?serial=";

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

// Unlike deletePrinterById, lists the queues of this id only. The id is not empty.
void deleteQueuesOf(const std::string& id) {
    QueueBindingList queues;
    if (!listPrinterQueues(queues, id))
        return;
    for (const QueueBinding& queue : queues)
        deletePrinter(queue.queueName, queue.id);
}

// All texts are free of zero bytes.
bool createQueue(const std::string& queueName, const std::string& id,
                 const std::string& description) {
    const std::string command =
        "lpadmin -p " + shellQuote(queueName).value() + " -u allow:all" + " -m " +
        shellQuote(ppdModel).value() + " -v " + shellQuote(kDeviceUriPrefix + id).value() +
        " -o printer-error-policy=retry-job -E" + " -D " + shellQuote(description).value() +
        " -L 'Host OS'" + " -o printer-is-shared=false";
    QNT_LOG(kLogDetail, "Adding printer: [%s]", command.c_str());
    if (const int status = runCommand(command); status != 0) {
        QNT_LOG(kLogAlways, "Failed add printer '%s', rc=%d", id.c_str(), status);
        return false;
    }
    adoptCreatedQueue({id, queueName});
    return true;
}

std::string readPpdModel() {
    CommandOutput output;
    std::string model;
    if (!output.open("LANG=C lpinfo --make-and-model 'HP Color LaserJet 8500 Postscript' -m"
                     " | head -n1 | cut -f1 -d' '"))
        return model;
    char line[kLineBufferSize];
    while (output.readLine(line))
        model += line;
    if (!model.empty() && model.back() == '\n')
        model.pop_back();
    output.close();
    return model;
}

}  // namespace

void addPrinter(std::string& name, const std::string& id) {
    QNT_LOG(kLogAlways, "addPrinter: id=%s name=%s", id.c_str(), name.c_str());
    std::string givenName;
    givenName.swap(name);
    forgetAppliedDefault(id);
    if (!checkPrinterId(id))
        return;
    if (givenName.empty() && !id.empty())
        givenName = queueNameFor(waitForUsbProduct(id));
    if (givenName.empty() || id.empty()) {
        QNT_LOG(kLogAlways, "Cannot get name for printer with id=%s", id.c_str());
        return;
    }
    if (!checkPrinterName(givenName))
        return;
    name = queueNameFor(givenName);
    deleteQueuesOf(id);
    if (ppdModel.empty())
        selectPpdModel();
    if (createQueue(name, id, givenName))
        return;
    std::string accepted = acceptedQueueName(name);
    if (accepted != name && createQueue(accepted, id, acceptedDescription(givenName)))
        name.swap(accepted);
}

bool renamePrinter(const std::string& currentName, std::string& newName) {
    QNT_LOG(kLogDetail, "renamePrinter: '%s'->'%s'", currentName.c_str(), newName.c_str());
    newName = queueNameFor(newName);
    if (currentName == newName)
        return true;
    if (!checkPrinterName(newName))
        return false;
    if (currentName == acceptedQueueName(newName))
        return true;
    QueueBindingList queues;
    if (!listTrustedQueues(queues, {}))
        return false;
    const auto queue = std::ranges::find(queues, currentName, &QueueBinding::queueName);
    if (queue == queues.end() || !checkPrinterId(queue->id) ||
        !deletePrinter(currentName, queue->id))
        return false;
    std::string createdName = newName;
    addPrinter(createdName, queue->id);
    if (currentName == lastDefaultQueueName())
        setDefaultPrinter(queue->id);
    return true;
}

void selectPpdModel() {
    ppdModel = readPpdModel();
    if (ppdModel.empty())
        ppdModel = kFallbackPpdModel;
}

}  // namespace qnt
