#include "tools/lumora/os/line_editor.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iterator>
#include <utility>

#ifdef LUMORA_HAVE_EDITLINE
#include <editline/readline.h>
#endif

#include "tools/lumora/os/signals.h"
#include "tools/lumora/terminal/terminal.h"

namespace lumora_cli {

// A source of lines. Both kinds read only after poll has reported input, so that a signal can end the wait.
class LineEditor::Source {
public:
    virtual ~Source() = default;
    // Takes what there is.
    virtual void Read() = 0;
    // While other output is written.
    virtual void Hide() {}
    virtual void Show() {}

    std::deque<std::string> lines;
    bool ended = false;
};

namespace {

class PlainSource : public LineEditor::Source {
public:
    void Read() override {
        char bytes[4096];
        const ssize_t count = read(STDIN_FILENO, bytes, sizeof(bytes));
        // Nothing to read yet. Another process may share this input and have taken the data.
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
            return;
        }
        mRest.append(bytes, count > 0 ? static_cast<std::size_t>(count) : 0);
        for (std::size_t end = mRest.find('\n'); end != std::string::npos; end = mRest.find('\n')) {
            lines.push_back(mRest.substr(0, end));
            mRest.erase(0, end + 1);
        }
        if (count <= 0) {
            ended = true;
            if (!mRest.empty()) {
                // The last line may lack its end.
                lines.push_back(std::exchange(mRest, ""));
            }
        }
    }

private:
    std::string mRest;
};

#ifdef LUMORA_HAVE_EDITLINE

class EditedSource;
// The callbacks of libedit take no argument, so they find their object here.
EditedSource* g_edited = nullptr;

class EditedSource : public LineEditor::Source {
public:
    EditedSource(std::string prompt, std::vector<std::string> completions)
        : mPrompt(std::move(prompt)), mCompletions(std::move(completions)) {
        g_edited = this;
        using_history();
        read_history(HistoryFile().c_str());
        rl_completion_entry_function = NextCompletion;
        // From here on libedit holds the terminal in a mode without line buffering; the destructor restores
        // it.
        rl_callback_handler_install(mPrompt.c_str(), TakeLine);
    }

    ~EditedSource() override {
        rl_callback_handler_remove();
        write_history(HistoryFile().c_str());
        g_edited = nullptr;
    }

    // Takes one character. libedit calls TakeLine when a line is complete.
    void Read() override { rl_callback_read_char(); }

    // The prompt must not stand in the middle of the output.
    void Hide() override {
        // Carriage return, and the escape sequence that erases to the end of the line.
        constexpr char CLEAR_LINE[] = "\r\033[K";
        [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, CLEAR_LINE, sizeof(CLEAR_LINE) - 1);
    }
    void Show() override {
        const std::string text = mPrompt + rl_line_buffer;
        [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
    }

private:
    static std::string HistoryFile() {
        const char* home = std::getenv("HOME");
        return std::string(home != nullptr ? home : "/tmp") + "/.lumora_history";
    }

    static void TakeLine(char* line) {
        const std::unique_ptr<char, decltype(&std::free)> owner(line, std::free);
        // Ctrl-D on an empty line.
        if (line == nullptr) {
            g_edited->ended = true;
            return;
        }
        if (*line != '\0') {
            add_history(line);
        }
        g_edited->lines.emplace_back(line);
    }

    // libedit asks for one after the other, with state 0 first, and frees them.
    static char* NextCompletion(const char* word, int state) {
        // The state lies between the calls, as libedit asks for one candidate at a time.
        static std::size_t next = 0;
        next = state == 0 ? 0 : next;
        while (next < g_edited->mCompletions.size()) {
            const std::string& candidate = g_edited->mCompletions[next++];
            if (candidate.compare(0, std::strlen(word), word) == 0) {
                // libedit frees it with free().
                return strdup(candidate.c_str());
            }
        }
        return nullptr;
    }

    const std::string mPrompt;
    const std::vector<std::string> mCompletions;
};

#endif

}  // namespace

LineEditor::LineEditor(const std::string& prompt, std::vector<std::string> completions)
    : mSource(MakeSource(prompt, std::move(completions))) {}

std::unique_ptr<LineEditor::Source> LineEditor::MakeSource(const std::string& prompt,
                                                           std::vector<std::string> completions) {
#ifdef LUMORA_HAVE_EDITLINE
    if (IsTerminal(STDIN_FILENO) && IsTerminal(STDOUT_FILENO)) {
        return std::make_unique<EditedSource>(prompt, std::move(completions));
    }
#else
    static_cast<void>(prompt);
    static_cast<void>(completions);
#endif
    return std::make_unique<PlainSource>();
}

LineEditor::~LineEditor() = default;

std::optional<std::string> LineEditor::Next(int fd, const std::function<void()>& attend) {
    while (mSource->lines.empty() && !mSource->ended) {
        pollfd watched[] = {{StopFd(), POLLIN, 0}, {fd, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        poll(watched, std::size(watched), -1);
        if (watched[0].revents != 0) {
            return std::nullopt;
        }
        if (watched[1].revents != 0) {
            mSource->Hide();
            attend();
            mSource->Show();
        }
        if (watched[2].revents != 0) {
            mSource->Read();
        }
    }
    if (mSource->lines.empty()) {
        return std::nullopt;
    }
    std::string line = std::move(mSource->lines.front());
    mSource->lines.pop_front();
    return line;
}

}  // namespace lumora_cli
