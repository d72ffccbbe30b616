#include "tools/lumora/terminal/output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <utility>

#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/terminal.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

bool g_json = false;
const char* g_program = "lumora";

// 0, or the error.
int WriteAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(fd, bytes.data(), bytes.size());
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

}  // namespace

void UseJson() { g_json = true; }
bool IsJson() { return g_json; }

void HoldStandardDescriptors() {
    // Standard output stays one that cannot be written: results must not be lost in silence.
    // The lowest descriptor first, because open returns the lowest free number.
    const std::pair<int, int> modes[] = {
        {STDIN_FILENO, O_RDONLY}, {STDOUT_FILENO, O_RDONLY}, {STDERR_FILENO, O_WRONLY}};
    for (const auto& [fd, mode] : modes) {
        if (fcntl(fd, F_GETFD) < 0) {
            [[maybe_unused]] const int held =
                open("/dev/null", mode);  // takes the lowest number that is free
        }
    }
}

void Print(std::string_view text) {
    const int error = WriteAll(STDOUT_FILENO, text);
    // The reader has left, as in "lumora find | head -1". This is no failure to report.
    if (error == EPIPE) {
        throw QuietEnd(EXIT_BY_SIGNAL + SIGPIPE);
    }
    if (error != 0) {
        throw Failure(EXIT_FILE, "standard output cannot be written: " + SystemError(error));
    }
}

void UseName(const char* program) { g_program = program; }

void Remark(const std::string& line) { WriteAll(STDERR_FILENO, g_program + (": " + line) + '\n'); }

// Errors of writing standard error are ignored: no channel is left to report them.
void PrintFailure(const std::string& what, int code) {
    if (g_json) {
        WriteAll(STDERR_FILENO, JsonObject().Add("error", what).Add("exit", code).Text() + '\n');
    } else {
        WriteAll(STDERR_FILENO, Coloured(std::string(g_program) + ':', Colour::RED, STDERR_FILENO) + ' ' +
                                    OneLine(what) + '\n');
    }
}

int RunToTheEnd(const std::function<int()>& run) {
    try {
        HoldStandardDescriptors();
        return run();
    } catch (const QuietEnd& end) {
        return end.Code();
    } catch (const Failure& failure) {
        PrintFailure(failure.what(), failure.Code());
        return failure.Code();
    } catch (const std::exception& problem) {
        // Such as std::bad_alloc, or a thread that cannot be started.
        PrintFailure(problem.what(), EXIT_FAILED);
        return EXIT_FAILED;
    }
}

}  // namespace lumora_cli
