// One log record, beside the bare write of its finished bytes and beside spdlog, each to a file of
// its own in the working directory, which is removed at the end.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "log/log_file.h"
#include "log/log_record.h"
#include "posix/unique_fd.h"

namespace {

constexpr char kQueue[] = "Office_Laser";
constexpr char kId[] = "TAG1001";

std::string g_finishedRecord;

int keepRecord(const char* record, std::int32_t length) {
    g_finishedRecord.assign(record, static_cast<std::size_t>(length));
    return length;
}

void logDeletion() {
    qnt::logRecord("", qnt::kServiceTag, 0, "deletePrinter: name=%s id=%s", kQueue, kId);
}

// The bytes of one record, time and ids included.
std::string finishedRecord() {
    qnt::logSetSink(keepRecord);
    logDeletion();
    qnt::logSetSink(qnt::logFileWrite);
    return g_finishedRecord;
}

// A folder beside the build, so that the file lies on a disk and not in memory.
class LogFolder {
public:
    LogFolder() {
        std::string name = (std::filesystem::current_path() / "log_bench-XXXXXX").string();
        m_path = mkdtemp(name.data());
    }
    ~LogFolder() { std::filesystem::remove_all(m_path); }
    LogFolder(const LogFolder&) = delete;
    LogFolder& operator=(const LogFolder&) = delete;

    std::string file() const { return m_path / qnt::kLogFileName; }
    std::string path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

void recordToFile(benchmark::State& state) {
    const LogFolder folder;
    qnt::logFileSetPlacement(folder.path().c_str(), qnt::kLogFileName);
    for (auto _ : state)
        logDeletion();
    const auto expected = static_cast<std::uintmax_t>(state.iterations()) * finishedRecord().size();
    if (std::filesystem::file_size(folder.file()) != expected)
        state.SkipWithError("records are missing in the file");
}

void bareWrite(benchmark::State& state) {
    const LogFolder folder;
    const std::string record = finishedRecord();
    const qnt::UniqueFd file(
        open(folder.file().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, qnt::kLogFileMode));
    for (auto _ : state) {
        if (write(file.get(), record.data(), record.size()) == -1)
            state.SkipWithError("the write failed");
    }
}

void spdlogToFile(benchmark::State& state) {
    const LogFolder folder;
    spdlog::logger logger(qnt::kServiceTag,
                          std::make_shared<spdlog::sinks::basic_file_sink_mt>(folder.file()));
    logger.set_pattern("%m-%d %H:%M:%S.%e F /%n:%P:%t/ %v");
    logger.flush_on(spdlog::level::trace);
    for (auto _ : state)
        logger.info("deletePrinter: name={} id={}", kQueue, kId);
}

// The level in force keeps the record from being composed.
void suppressedRecord(benchmark::State& state) {
    qnt::logSetLevel(2);
    for (auto _ : state) {
        if (qnt::logGetLevel() >= 3)
            qnt::logRecord("", qnt::kServiceTag, 3, "isPrinterOnline: %s", kId);
        benchmark::ClobberMemory();
    }
}

void emptyLoop(benchmark::State& state) {
    for (auto _ : state)
        benchmark::ClobberMemory();
}

}  // namespace

BENCHMARK(recordToFile);
BENCHMARK(bareWrite);
BENCHMARK(spdlogToFile);
BENCHMARK(suppressedRecord);
BENCHMARK(emptyLoop);
BENCHMARK_MAIN();
