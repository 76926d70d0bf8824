// The host's side of the codec, and exchanges as text.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "protocol/printing_format.h"
#include "sim/host_replies.h"

namespace sim {

struct HostPrinter {
    std::string id;
    std::string name;
};

// A command of the host, and a builder for each kind.
struct HostCommand {
    std::uint32_t code = 0;
    std::string printerId;  // has no item if it is empty
    std::optional<std::vector<HostPrinter>> printers;
};
inline HostCommand addPrinter(const std::string& id) {
    return {qnt::CmdAddPrinter, id, {}};
}
inline HostCommand deletePrinter(const std::string& id) {
    return {qnt::CmdDeletePrinter, id, {}};
}
inline HostCommand deleteOffline() {
    return {qnt::CmdDeleteOfflinePrinters, {}, {}};
}
inline HostCommand printerList(const std::vector<HostPrinter>& printers) {
    return {qnt::CmdPrinterList, {}, printers};
}

// The answer bytes of a command: header and item stream, with requiredSize 0.
Bytes encodeAnswer(const HostCommand& command, std::uint32_t sequence);
// The answer bytes of a GetDefaultPrinter request.
Bytes encodeDefaultPrinter(const std::string& id, std::uint32_t sequence);
// A request as text, e.g. "PrintingCmdAnswer seq=17 result=1".
std::string describeRequest(const Exchange& exchange);
// The field at this offset of the PrintingCmdHeader that a message begins with.
std::uint32_t headerField(const Bytes& message, std::uint32_t offset);
// An answer to a printing request without a payload.
Bytes emptyAnswer(std::uint32_t sequence);
// Replies to a printing request that ask for a larger buffer, and with a malformed payload.
Reply askFor(std::uint32_t requiredSize);
Reply malformed();

// An exchange whose reply is being delivered, as one line: time of day, request, sizes, outcome,
// and how long it was held.
std::string describeExchange(const Exchange& exchange);
// The state text of a status message; empty if it has none.
std::string statusState(const Bytes& message);

struct Item {
    std::uint32_t type;
    Bytes data;
    std::string text() const { return {data.begin(), data.end()}; }
    std::uint32_t number() const;  // 0 if there are fewer than 4 bytes
};
// The items of the stream at offset `base`, up to its end or a malformed item.
std::vector<Item> itemsOf(const Bytes& message, std::uint32_t base);

}  // namespace sim
