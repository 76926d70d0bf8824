#include "sim/random_answers.h"

#include <algorithm>
#include <iterator>

#include "protocol/little_endian.h"

namespace sim {

void RandomAnswers::queue(SimulatedHost& host, unsigned number) {
    for (; number > 0; --number) {
        const HostCommand command{1 + below(6), text(), {{text(), text()}, {text(), ""}}};
        host.fault(kRunLoopRequest, fault(encodeAnswer(command, below(100)), 10));
        host.fault(qnt::GetDefaultPrinter, fault(encodeDefaultPrinter(text(), below(9)), 50));
    }
}

std::string RandomAnswers::text() {
    std::string bytes(below(50), ' ');
    std::ranges::generate(bytes, [&] { return static_cast<char>(below(256)); });
    const std::string known[] = {"TAG1", "TAG2", "Office Laser", "Front Desk", "", bytes};
    return known[below(std::size(known))];
}

// One bit is flipped, the end is cut off or extended, or one field gets an extreme value.
Bytes RandomAnswers::mutated(Bytes bytes) {
    const std::uint32_t extremes[] = {0, 12, 80, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF0, ~0U};
    const std::size_t at = below(static_cast<unsigned>(bytes.size()));
    const std::size_t field = at / 4 * 4;
    const unsigned kind = below(3);
    if (kind == 0)
        bytes[at] ^= static_cast<std::uint8_t>(1 << below(8));
    else if (kind == 1)
        bytes.resize(1 + at + std::size_t{below(2)} * below(300),
                     static_cast<std::uint8_t>(below(256)));
    else if (field + 4 <= bytes.size())
        qnt::writeU32(&bytes[field], extremes[below(std::size(extremes))] + below(3));
    return bytes;
}

Fault RandomAnswers::fault(const Bytes& answer, unsigned percentMutated) {
    const std::uint32_t sizes[] = {1, 19, 79, 80, 108, 500, 5000, 1 << 20, 1 << 27, ~0U};
    if (below(5) == 0)
        return {Fault::Kind::kAskFor, sizes[below(std::size(sizes))], {}};
    return {Fault::Kind::kRaw, 0, below(100) < percentMutated ? mutated(answer) : answer};
}

}  // namespace sim
