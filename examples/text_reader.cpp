// A device that reads the text in pictures. Callbacks hand everything to a thread of this program and return
// at once; that thread recognizes, and answers to the subscribers of the service "text".
#include <getopt.h>
#include <lumora.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <thread>

#include "options.h"
#include "text_answer.h"
#include "text_recognizer.h"
#include "work_queue.h"

namespace text_reader {
namespace {

constexpr int SEND_TIMEOUT_MS = 3000;

struct Options {
    std::string deviceType = DEFAULT_DEVICE_TYPE;
    std::string language = "eng";
    int queueLength = 4;
    int limitSeconds = 30;
};

struct Work {
    enum class Kind { PICTURE, LANGUAGE, UNKNOWN_COMMAND };
    Kind kind;
    std::string content;  // the picture, the language, the command
};

void SendAnswer(const Answer& answer) {
    std::string bytes = FormatAnswer(answer);
    bytes.resize(std::min<std::size_t>(bytes.size(), LUM_MAX_SERVER_DATA_LENGTH));
    const auto length = static_cast<unsigned int>(bytes.size());
    unsigned int sent = 0;
    if (LUM_SendDataToClient(SERVICE_NAME, bytes.data(), length, &sent, SEND_TIMEOUT_MS) != 0 ||
        sent != length) {
        std::printf("an answer of %u bytes could not be sent: nobody is listening\n", length);
    }
}

// The recognizer's thread with the work that waits for it.
class TextReader {
public:
    explicit TextReader(const Options& options)
        : mRecognizer(options.language, std::chrono::seconds(options.limitSeconds)),
          mQueue(static_cast<std::size_t>(options.queueLength)),
          mThread([this] { Run(); }) {}

    ~TextReader() { Stop(); }
    TextReader(const TextReader&) = delete;
    TextReader& operator=(const TextReader&) = delete;

    bool TryAdd(Work::Kind kind, std::string content) {
        return mQueue.TryPush(Work{kind, std::move(content)});
    }

    // Pictures that wait or are being read are given up: their senders get an answer that says so.
    void Stop() {
        mQueue.Close();
        mRecognizer.Cancel();
        if (mThread.joinable()) {
            mThread.join();
        }
    }

private:
    void Run() {
        while (const auto work = mQueue.Pop()) {
            try {
                SendAnswer(Do(*work));
            } catch (const std::exception& problem) {
                std::printf("failed: %s\n", problem.what());
                SendAnswer({Answer::Kind::ERROR, problem.what()});
            }
        }
    }

    Answer Do(const Work& work) {
        switch (work.kind) {
            case Work::Kind::PICTURE:
                return Read(work.content);
            case Work::Kind::LANGUAGE:
                mRecognizer.SetLanguage(work.content);
                std::printf("language %s\n", work.content.c_str());
                return {Answer::Kind::NOTE, "language " + work.content};
            case Work::Kind::UNKNOWN_COMMAND:
                break;
        }
        throw std::runtime_error("unknown command \"" + work.content + "\"; there is " +
                                 SET_LANGUAGE_COMMAND);
    }

    Answer Read(const std::string& picture) {
        using std::chrono::steady_clock;
        const auto start = steady_clock::now();
        std::string text = mRecognizer.Read(picture);
        const auto duration =
            std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - start);
        const auto milliseconds = static_cast<unsigned int>(duration.count());
        std::printf("read %zu characters in %u ms\n", text.size(), milliseconds);
        return {Answer::Kind::TEXT, std::move(text), milliseconds};
    }

    TextRecognizer mRecognizer;
    WorkQueue<Work> mQueue;
    std::thread mThread;
};

// The callbacks are given no context. Set before they are registered, valid until LUM_DeInitServer returned.
TextReader* g_reader = nullptr;

// Runs under a lock of the library: may call nothing of it.
int OnCommand(const char* cmd, const char* param) try {
    std::printf("command %s %s\n", cmd, param);
    const bool known = std::string(cmd) == SET_LANGUAGE_COMMAND;
    const bool taken = known ? g_reader->TryAdd(Work::Kind::LANGUAGE, param)
                             : g_reader->TryAdd(Work::Kind::UNKNOWN_COMMAND, cmd);
    if (!taken) {
        std::printf("busy: the command is dropped\n");
    }
    return taken ? 0 : -1;
} catch (const std::exception&) {
    return -1;
}

int OnEventNotify(int clientID, int event, LUM_SUBSCRIBE_SERVICE_S subscription) {
    std::printf("client %d %s %s\n", clientID, event == LUM_NOTIFY_SUBSCRIBED ? "subscribed to" : "left",
                subscription.serviceName);
    return 0;
}

// The bytes are valid until it returns, so they are copied.
int OnData(int clientID, const char* data, unsigned int length) try {
    const bool taken = g_reader->TryAdd(Work::Kind::PICTURE, std::string(data, length));
    std::printf("client %d sent %u bytes%s\n", clientID, length, taken ? "" : ", refused");
    if (!taken) {
        SendAnswer(
            {Answer::Kind::ERROR, "the device takes no more pictures just now: send this one again later"});
        return -1;
    }
    return 0;
} catch (const std::exception&) {
    return -1;
}

bool Register(const Options& options) {
    LUM_DEVICE_INFO_S device = {};
    device.serviceNum = 1;
    options.deviceType.copy(device.devServiceType, LUM_NAME_SIZE - 1);
    LUM_SERVICE_INFO_S& service = device.serviceInfo[0];
    std::string(SERVICE_NAME).copy(service.serviceName, LUM_NAME_SIZE - 1);
    service.outputLenBytes = LUM_MAX_SERVER_DATA_LENGTH;
    service.transport = LUM_TRANSPORT_TCP;
    device.OnCommand = OnCommand;
    device.OnEventNotify = OnEventNotify;
    device.OnData = OnData;
    return LUM_RegisterAiDevInfo(&device) == 0;
}

// Every thread made from here on has them blocked too, so sigwait gets them.
sigset_t BlockEndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

int Serve(const Options& options) {
    const sigset_t endSignals = BlockEndSignals();
    TextReader reader(options);
    g_reader = &reader;
    const bool started = LUM_InitServer(options.deviceType.c_str()) == 0 && Register(options);
    if (started) {
        std::printf("ready: %s reads %s\n", options.deviceType.c_str(), options.language.c_str());
        int signal = 0;
        sigwait(&endSignals, &signal);
        reader.Stop();
    } else {
        std::fprintf(stderr, "the device cannot start; the log above says why\n");
    }
    const bool ended = LUM_DeInitServer() == 0;
    if (started && ended) {
        std::printf("ended\n");
    }
    return started && ended ? 0 : 1;
}

void PrintHelp() {
    std::puts(
        "Usage: text_reader [OPTION...]\n"
        "A Lumora device that reads the text in PNG and JPEG pictures. SIGINT or SIGTERM ends it.\n"
        "\n"
        "  --type TYPE       the device type that clients search for (text-reader)\n"
        "  --language NAME   Tesseract's name of the language at the start (eng); the command SetLanguage\n"
        "                    changes it\n"
        "  --queue NUMBER    how many pictures and commands may wait (4)\n"
        "  --limit SECONDS   how long one picture may take (30)\n"
        "  --help            this text\n"
        "\n"
        "Exit codes: 0 ended by a signal, 1 it could not start or end, 2 wrong usage.");
}

std::string CheckedType(const std::string& type) {
    if (type.empty() || type.size() >= LUM_NAME_SIZE) {
        std::fprintf(stderr, "--type takes 1 to %d characters; see --help\n", LUM_NAME_SIZE - 1);
        std::exit(USAGE_ERROR);
    }
    return type;
}

Options ParseOptions(int count, char** arguments) {
    const option known[] = {
        {"type", required_argument, nullptr, 't'},  {"language", required_argument, nullptr, 'l'},
        {"queue", required_argument, nullptr, 'q'}, {"limit", required_argument, nullptr, 's'},
        {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0}};
    Options options;
    for (int name = 0; (name = getopt_long(count, arguments, "", known, nullptr)) != -1;) {
        switch (name) {
            case 't':
                options.deviceType = CheckedType(optarg);
                break;
            case 'l':
                options.language = optarg;
                break;
            case 'q':
                options.queueLength = NumberOption("--queue", optarg, 1, 1000);
                break;
            case 's':
                options.limitSeconds = NumberOption("--limit", optarg, 1, 3600);
                break;
            case 'h':
                PrintHelp();
                std::exit(0);
            default:
                std::exit(USAGE_ERROR);
        }
    }
    if (optind != count) {
        std::fprintf(stderr, "unexpected \"%s\"; see --help\n", arguments[optind]);
        std::exit(USAGE_ERROR);
    }
    return options;
}

}  // namespace
}  // namespace text_reader

int main(int count, char** arguments) try {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // a reader behind a pipe sees each line at once
    return text_reader::Serve(text_reader::ParseOptions(count, arguments));
} catch (const std::exception& problem) {
    std::fprintf(stderr, "text_reader: %s\n", problem.what());
    return 1;
}
