// One log record, compared with a bare write of the same bytes. Each writes to a file of its own in
// the working directory.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "log/log_file.h"
#include "log/log_record.h"
#include "posix/unique_fd.h"

namespace {

constexpr char kLog[] = "record.log";
constexpr char kQueue[] = "Office_Laser", kId[] = "TAG1001";

void logDeletion() {
    qnt::logRecord("", qnt::kServiceTag, 0, "deletePrinter: name=%s id=%s", kQueue, kId);
}

// The bytes of one record, newline included.
std::string firstRecord() {
    std::string record;
    std::ifstream file(kLog);
    std::getline(file, record);
    return record + '\n';
}

void recordToFile(benchmark::State& state) {
    std::filesystem::remove(kLog);
    qnt::logFileSetPlacement(".", kLog);
    for (auto _ : state)
        logDeletion();
    const auto records = static_cast<std::uintmax_t>(state.iterations());
    if (std::filesystem::file_size(kLog) != records * firstRecord().size())
        state.SkipWithError("records are missing in the file");
}

void bareWrite(benchmark::State& state) {
    qnt::logFileSetPlacement(".", kLog);
    logDeletion();
    const std::string record = firstRecord();
    const qnt::UniqueFd file(
        open("write.log", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666));
    for (auto _ : state) {
        if (write(file.get(), record.data(), record.size()) == -1)
            state.SkipWithError("the write failed");
    }
}

void suppressedRecord(benchmark::State& state) {
    qnt::logSetLevel(2);
    for (auto _ : state) {
        QNT_LOG(3, "isPrinterOnline: %s", kId);
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
BENCHMARK(suppressedRecord);
BENCHMARK(emptyLoop);
