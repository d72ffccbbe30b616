// liblink_log.so.
#include <fcntl.h>
#include <link_log.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "tools/platform_check/checks.h"

namespace platform_check {

namespace {

using Log = decltype(&LogInfo);

// The output of this process is discarded.
void HideStandardError() {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    // The checks write thousands of lines.
    dup2(nowhere, STDERR_FILENO);
    close(nowhere);
    setenv("LUMORA_LOG_LEVEL", "0", 1);
}

void WriteSome(Log log, int lines) {
    for (int line = 0; line < lines; ++line) {
        // Five levels, and the conversions that the libraries use.
        log(line % 5, "CHECK", __func__, line, "line %d of %s, %.1f, %p\n", line, "some", 0.5, nullptr);
    }
}

}  // namespace

void CheckLog(const Files& files, Report& report) {
    constexpr int LINES = 100;
    constexpr int THREADS = 4;
    constexpr std::size_t LONG = 100000;
    HideStandardError();
    report.Begin("log");
    Log log = nullptr;
    const bool loaded = report.Check("has LogInfo", "a file that can be loaded, with it", [&] {
        std::string fault;
        log = reinterpret_cast<Log>(LoadFunction(files.log, "LogInfo", fault));
        return fault;
    });
    if (!loaded) {
        return;
    }
    report.Check("LogInfo leaves errno alone", "as it was", [&] {
        // An arbitrary value that a write does not set.
        errno = ENOTTY;
        WriteSome(log, 5);
        return errno == ENOTTY ? "" : "errno " + std::to_string(errno);
    });
    // A fixed buffer without a length check would overflow here.
    report.Check("LogInfo takes a line of 100,000 characters", "nothing happens", [&] {
        log(4, "CHECK", __func__, __LINE__, "%s\n", std::string(LONG, 'l').c_str());
        return "";
    });
    report.Check("LogInfo takes 400 lines from 4 threads", "nothing happens", [&] {
        std::vector<std::thread> threads;
        threads.reserve(THREADS);
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back(WriteSome, log, LINES);
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        return "";
    });
}

}  // namespace platform_check
