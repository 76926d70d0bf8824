#include "cups/trusted_queues.h"

#include <map>
#include <optional>
#include <set>
#include <string_view>

#include "cups/cups_check.h"
#include "cups/printer_names.h"
#include "log/log_record.h"
#include "posix/shell_command.h"

namespace qnt {
namespace {

enum class Binding {
    kBound,    // to the id
    kOther,    // to something else, or not known for certain
    kMissing,  // lpstat found no such queue; it prints the same if CUPS does not answer
    kUnknown,  // lpstat has failed
};

// The queues about which CUPS has answered, and whether each is trusted.
std::map<QueueBinding, bool> g_verdicts;

// Reads a line of any length, without its newline.
bool readWholeLine(CommandOutput& output, std::string& line) {
    char piece[kLineBufferSize];
    line.clear();
    while (output.readLine(piece)) {
        line += piece;
        if (line.ends_with('\n')) {
            line.pop_back();
            return true;
        }
    }
    return !line.empty();
}

bool isUriOf(std::string_view uri, const std::string& id) {
    return uri.starts_with("usb:") && uri.ends_with("=" + id);
}

// Asked for one queue, lpstat prints its true line first. In the listing of all queues a forged
// line may come first, so with two lines for the queue its binding is not known.
Binding askBinding(const QueueBinding& queue) {
    const bool isOnly = isOneQueueToLpstat(queue.queueName);
    const std::string start = "device for " + queue.queueName + ": ";
    const std::string missing =
        "lpstat: Invalid destination name in list \"" + queue.queueName + "\".";
    CommandOutput output;
    if (!output.open("LANG=C lpstat -v" +
                     (isOnly ? " " + shellQuote(queue.queueName).value() + " 2>&1" : "")))
        return Binding::kUnknown;
    Binding binding = Binding::kUnknown;
    bool isFirst = true;
    std::string line;
    while (readWholeLine(output, line)) {
        if (line == missing && isFirst)
            binding = Binding::kMissing;
        if (!line.starts_with(start))
            continue;
        if (isFirst)
            binding = isUriOf(std::string_view(line).substr(start.size()), queue.id)
                          ? Binding::kBound
                          : Binding::kOther;
        else if (!isOnly)
            binding = Binding::kOther;
        isFirst = false;
    }
    output.close();
    return binding;
}

// None if CUPS does not answer, false if it answers and lpoptions fails. Every text that another
// user may have put into the options of a queue is in the options of a temporary queue, so it can
// only add the word that is searched for.
std::optional<bool> askTemporary(const QueueBinding& queue) {
    CommandOutput output;
    if (!output.open("lpoptions -p " + shellQuote(queue.queueName).value()))
        return std::nullopt;
    bool isTemporary = false, isAnswered = false;
    for (std::string line; readWholeLine(output, line); isAnswered = true)
        isTemporary |= line.find(" printer-is-temporary=true") != std::string::npos;
    output.close();
    // A restart of CUPS in between ends a temporary queue.
    if (!isAnswered && (!isCupsAnswering() || askBinding(queue) != Binding::kBound))
        return std::nullopt;
    return isTemporary;
}

// None if CUPS does not answer.
std::optional<bool> askVerdict(const QueueBinding& queue) {
    const Binding binding = askBinding(queue);
    if (binding == Binding::kUnknown || (binding == Binding::kMissing && !isCupsAnswering()))
        return std::nullopt;
    if (binding != Binding::kBound)
        return g_verdicts[queue] = false;
    const auto isTemporary = askTemporary(queue);
    if (!isTemporary)
        return std::nullopt;
    return g_verdicts[queue] = !*isTemporary;
}

std::optional<bool> verdictOn(const QueueBinding& queue) {
    const auto known = g_verdicts.find(queue);
    return known != g_verdicts.end() ? known->second : askVerdict(queue);
}

// A listing without queues may be one that has failed.
void forgetAllBut(const QueueBindingList& listing) {
    if (listing.empty())
        return;
    const std::set<QueueBinding> listed(listing.begin(), listing.end());
    std::erase_if(g_verdicts, [&](const auto& known) { return !listed.contains(known.first); });
}

// False if CUPS has not answered about a queue, which is not moved. Of two equal lines one is
// forged, and may remain when the queue is deleted: one is moved, and the verdict is not kept.
bool moveTrusted(QueueBindingList& queues, QueueBindingList& listing) {
    bool isAnswered = true;
    std::set<QueueBinding> seen, repeated;
    listing.remove_if([&](const QueueBinding& queue) {
        if (!seen.insert(queue).second) {
            repeated.insert(queue);
            return true;
        }
        const auto isTrusted = verdictOn(queue);
        isAnswered &= isTrusted.has_value();
        return !isTrusted.value_or(false);
    });
    queues.splice(queues.end(), listing);
    for (const QueueBinding& queue : repeated)
        g_verdicts.erase(queue);
    return isAnswered;
}

}  // namespace

bool listTrustedQueues(QueueBindingList& queues, const std::string& id) {
    QueueBindingList listing;
    if (!listPrinterQueues(listing, id))
        return false;
    if (id.empty())
        forgetAllBut(listing);
    (void)moveTrusted(queues, listing);
    return true;
}

bool listTrustedQueuesIfAnswered(QueueBindingList& queues) {
    QueueBindingList listing;
    return listQueuesIfAnswered(listing) && moveTrusted(queues, listing);
}

void adoptCreatedQueue(const QueueBinding& queue) {
    if (askTemporary(queue).value_or(false)) {
        const std::string command =
            "lpadmin -p " + shellQuote(queue.queueName).value() + " -o printer-is-temporary=false";
        if (const int status = runCommand(command); status != 0)
            QNT_LOG(kLogAlways, "Failed to make queue '%s' permanent, rc=%d",
                    queue.queueName.c_str(), status);
    }
    g_verdicts[queue] = true;
}

void forgetTrust(const QueueBinding& queue) {
    g_verdicts.erase(queue);
}

bool confirmBinding(const QueueBinding& queue) {
    if (askBinding(queue) == Binding::kBound)
        return true;
    QNT_LOG(kLogWarning, "Queue '%s' is left alone: CUPS does not bind it to '%s'",
            queue.queueName.c_str(), queue.id.c_str());
    return false;
}

}  // namespace qnt
