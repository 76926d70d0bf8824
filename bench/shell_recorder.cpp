#include "bench/shell_recorder.h"

#include <sys/mount.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr int kMaxRehearsals = 10;

}  // namespace

ShellRecorder::ShellRecorder(const std::string& folder)
    : m_shell(fs::canonical("/bin/sh")), m_record(folder + "/commands") {
    const std::string copy = folder + "/sh";
    const std::string recorder = folder + "/recorder";
    fs::copy_file(m_shell, copy, fs::copy_options::overwrite_existing);
    std::ofstream(m_record).flush();
    std::ofstream(recorder) << "#!/bin/bash\nprintf '%s\\n' \"$2\" >>" << m_record
                            << "\nexec -a sh " << copy << " \"$@\"\n";
    fs::permissions(recorder, fs::perms::owner_all);
    if (mount(recorder.c_str(), m_shell.c_str(), nullptr, MS_BIND, nullptr) != 0)
        throw std::runtime_error("The shell can't be replaced by one that records.");
}

ShellRecorder::~ShellRecorder() {
    umount2(m_shell.c_str(), MNT_DETACH);
}

std::vector<std::string> ShellRecorder::lines() const {
    std::vector<std::string> lines;
    std::ifstream record(m_record);
    for (std::string line; std::getline(record, line);)
        lines.push_back(line);
    return lines;
}

std::vector<std::string> recordLines(const ShellRecorder& recorder,
                                     const std::function<void()>& prepare,
                                     const std::function<void()>& rehearse) {
    std::vector<std::string> previous;
    for (int count = 0; count < kMaxRehearsals; ++count) {
        prepare();
        const auto before = static_cast<std::ptrdiff_t>(recorder.lines().size());
        rehearse();
        const std::vector<std::string> all = recorder.lines();
        const std::vector<std::string> lines(std::next(all.begin(), before), all.end());
        if (!lines.empty() && lines == previous)
            return lines;
        previous = lines;
    }
    throw std::runtime_error("The service runs other commands at every rehearsal.");
}

std::vector<std::string> scriptOf(const std::string& path, const std::vector<std::string>& lines) {
    std::ofstream script(path);
    for (const std::string& line : lines)
        script << line << '\n';
    return {"sh", path};
}

}  // namespace bench
