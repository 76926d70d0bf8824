// Bytes of the wire formats: composed from words and texts, or read from the protocol's document.

#pragma once

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/little_endian.h"

namespace qnt {

using Bytes = std::vector<std::uint8_t>;

inline Bytes words(const std::vector<std::uint32_t>& values) {
    Bytes bytes(4 * values.size());
    for (std::size_t i = 0; i < values.size(); ++i)
        writeU32(&bytes[4 * i], values[i]);
    return bytes;
}

inline Bytes operator+(Bytes bytes, std::string_view text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
    return bytes;
}

inline Bytes operator+(Bytes bytes, const Bytes& more) {
    std::ranges::copy(more, std::back_inserter(bytes));
    return bytes;
}

inline std::string contents(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// The example of this name in docs/protocol.md. Each line has an offset, bytes ("00 x 60" repeats
// one), and a comment.
inline Bytes documented(const std::string& name) {
    const std::string text = contents(QNT_SOURCE_DIR "/docs/protocol.md"), start = "```hex " + name;
    std::istringstream example(text.substr(text.find(start + '\n') + start.size() + 1));
    Bytes bytes;
    for (std::string line; std::getline(example, line) && line != "```";) {
        std::istringstream fields(line.substr(0, line.find('#')));
        std::string field;
        if (!(fields >> field) || std::stoul(field, nullptr, 16) != bytes.size())
            return {};
        while (fields >> field)
            if (field == "x" && fields >> field)
                bytes.resize(bytes.size() + std::stoul(field) - 1, bytes.back());
            else
                bytes.push_back(static_cast<std::uint8_t>(std::stoul(field, nullptr, 16)));
    }
    return bytes;
}

}  // namespace qnt
