#include "cups/usb_discovery.h"

#include <glob.h>

#include <cstdio>

#include "posix/unique_fd.h"

namespace qnt {
namespace {

// Device and interface directories; root hubs have no "-" in their names.
constexpr char kUsbDevicePattern[] = "/sys/bus/usb/devices/*-*";

class GlobResult {
public:
    explicit GlobResult(const char* pattern)
        : m_status(glob(pattern, GLOB_ERR, nullptr, &m_glob)) {}
    ~GlobResult() { globfree(&m_glob); }
    GlobResult(const GlobResult&) = delete;
    GlobResult& operator=(const GlobResult&) = delete;

    char* const* begin() const { return m_glob.gl_pathv; }
    char* const* end() const { return m_glob.gl_pathv + (m_status == 0 ? m_glob.gl_pathc : 0); }

private:
    glob_t m_glob{};
    int m_status;
};

}  // namespace

// Uses stdio, as file streams would quadruple the code of the statically linked binary and cost an
// idle service 150 KiB.
std::string readFirstLine(const std::string& path) {
    std::string line;
    const UniqueFile file(std::fopen(path.c_str(), "re"));
    if (file == nullptr)
        return line;
    for (int byte = std::getc(file.get()); byte != EOF && byte != '\n';
         byte = std::getc(file.get()))
        line += static_cast<char>(byte);
    return line;
}

std::string getUsbProductBySerial(const std::string& id) {
    for (const std::string path : GlobResult(kUsbDevicePattern)) {
        if (readFirstLine(path + "/serial") != id)
            continue;
        std::string product = readFirstLine(path + "/product");
        if (!product.empty())
            return product;
    }
    return {};
}

}  // namespace qnt
