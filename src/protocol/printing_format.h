// The messages that the service and the host exchange about printers, in the data buffer of a
// request. Integers are encoded as in little_endian.h; texts are raw bytes without a NUL
// terminator.
//
// Every message begins with the PrintingCmdHeader; its payload is the item stream:
//
//   offset  width  field
//        0    u32  version        1 in requests
//        4    u32  requestType    PrintingRequestType
//        8    u32  sequence       issued by the host, echoed by the service
//       12    u32  payloadLength  answers: bytes of the item stream at offset 80
//       16    u32  requiredSize   answers: 0, or the buffer size that the answer needs
//       20     60  reserved       0
//       80         item stream

#pragma once

#include <cstdint>

namespace qnt {

inline constexpr std::uint32_t kPrintingVersion = 1;
inline constexpr std::uint32_t kPrintingCmdHeaderSize = 80;

struct PrintingCmdHeader {
    static constexpr std::uint32_t kVersionOffset = 0;
    static constexpr std::uint32_t kRequestTypeOffset = 4;
    static constexpr std::uint32_t kSequenceOffset = 8;
    static constexpr std::uint32_t kPayloadLengthOffset = 12;
    static constexpr std::uint32_t kRequiredSizeOffset = 16;
};

// The value of requestType. 0 and 2 are never sent.
enum PrintingRequestType : std::uint32_t {
    GetDefaultPrinter = 1,    // answer: a stream whose first item is the PrinterId
    GetPrintingCmd = 3,       // answer: a command
    PrintingCmdAnswer = 4,    // carries one CmdResult; answer: a command
    PrintingCmdPending = 5,   // answer: a command
    UserDeletedPrinters = 6,  // carries one PrinterId per queue; the answer is not examined
};

enum PrintingItemType : std::uint32_t {
    PrinterId = 0x200A,     // text: USB serial of the virtual printer, end of the queue's URI
    PrinterName = 0x200B,   // text: the host's name of a printer
    PrinterEntry = 0x200C,  // stream: one PrinterId and one PrinterName
    CmdCode = 0x200D,       // u32: PrintingCmdCode; only the first four bytes are read
    CmdResult = 0x200E,     // u32: PrintingCmdResult
    PrinterList = 0x200F,   // stream: PrinterEntry items, the host's whole list in its order
};

inline constexpr std::uint32_t kCmdCodeSize = 4;

// The value of a CmdCode item. Any other code is unknown.
enum PrintingCmdCode : std::uint32_t {
    CmdAddPrinter = 1,     // with PrinterId
    CmdDeletePrinter = 2,  // with PrinterId
    CmdDeleteOfflinePrinters = 3,
    CmdPrinterList = 4,  // with PrinterList
    CmdWaitAllOffline = 5,
};

// The outcome of a command and the value of a CmdResult item.
enum PrintingCmdResult : std::uint32_t {
    CmdPending = 0,  // accepted, not finished; never sent, a PrintingCmdPending goes out instead
    CmdDone = 1,
    CmdUnknown = 2,
};

}  // namespace qnt
