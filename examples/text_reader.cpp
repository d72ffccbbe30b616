// A device that reads the text in pictures. Handlers hand everything to a thread of this program and return
// at once; that thread recognizes, and answers to the subscribers of the service "text".
#include <getopt.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <lumora.hpp>
#include <memory>
#include <string>
#include <thread>

#include "options.h"
#include "text_answer.h"
#include "text_recognizer.h"
#include "work_queue.h"

namespace text_reader {
namespace {

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

void SendAnswer(lumora::Device& device, const Answer& answer) {
    const std::string bytes = FormatAnswer(answer).substr(0, LUM_MAX_SERVER_DATA_LENGTH);
    std::error_code error;
    if (!device.Send(SERVICE_NAME, bytes, error)) {
        std::printf("an answer of %zu bytes could not be sent: %s\n", bytes.size(), error.message().c_str());
    }
}

// The recognizer's thread with the work that waits for it.
class TextReader {
public:
    explicit TextReader(const Options& options)
        : mRecognizer(options.language, std::chrono::seconds(options.limitSeconds)),
          mQueue(static_cast<std::size_t>(options.queueLength)),
          mDevice(options.deviceType),
          mThread([this] { Run(); }) {}

    ~TextReader() { Stop(); }
    TextReader(const TextReader&) = delete;
    TextReader& operator=(const TextReader&) = delete;

    lumora::Device& Device() { return mDevice; }

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
                SendAnswer(mDevice, Do(*work));
            } catch (const std::exception& problem) {
                std::printf("failed: %s\n", problem.what());
                SendAnswer(mDevice, {Answer::Kind::ERROR, problem.what()});
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
    lumora::Device mDevice;  // behind what its handlers use: they end with it
    std::thread mThread;
};

// They run on threads of the library, which must not be held up.
void Handle(lumora::Device& device, TextReader& reader) {
    device.OnCommand([&reader](std::string_view command, std::string_view parameter) {
        const std::string name(command);
        std::printf("command %s %s\n", name.c_str(), std::string(parameter).c_str());
        const bool known = name == SET_LANGUAGE_COMMAND;
        if (!reader.TryAdd(known ? Work::Kind::LANGUAGE : Work::Kind::UNKNOWN_COMMAND,
                           known ? std::string(parameter) : name)) {
            std::printf("busy: the command is dropped\n");
        }
    });
    device.OnSubscribe([](const lumora::Subscription& begun) {
        std::printf("client %d subscribed to %s\n", begun.client, std::string(begun.service).c_str());
    });
    device.OnUnsubscribe([](const lumora::Subscription& ended) {
        std::printf("client %d left %s\n", ended.client, std::string(ended.service).c_str());
    });
    // The bytes are valid until it returns, so they are copied.
    device.OnData([&device, &reader](int client, lumora::Bytes data) {
        const bool taken = reader.TryAdd(Work::Kind::PICTURE, std::string(data.Text()));
        std::printf("client %d sent %zu bytes%s\n", client, data.size(), taken ? "" : ", refused");
        if (!taken) {
            SendAnswer(device, {Answer::Kind::ERROR,
                                "the device takes no more pictures just now: send this one again later"});
        }
    });
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
    lumora::Device& device = reader.Device();
    Handle(device, reader);
    std::error_code error;
    if (!device.Offer(SERVICE_NAME).Start(error)) {
        std::fprintf(stderr, "the device cannot start: %s; the log above says why\n",
                     error.message().c_str());
        return 1;
    }
    std::printf("ready: %s reads %s\n", options.deviceType.c_str(), options.language.c_str());
    int signal = 0;
    sigwait(&endSignals, &signal);
    reader.Stop();
    if (!device.Stop(error)) {
        return 1;
    }
    std::printf("ended\n");
    return 0;
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

Options ParseOptions(int count, char** arguments) {
    const option known[] = {
        {"type", required_argument, nullptr, 't'},  {"language", required_argument, nullptr, 'l'},
        {"queue", required_argument, nullptr, 'q'}, {"limit", required_argument, nullptr, 's'},
        {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0}};
    Options options;
    for (int name = 0; (name = getopt_long(count, arguments, "", known, nullptr)) != -1;) {
        switch (name) {
            case 't':
                options.deviceType = examples::TypeOption(optarg);
                break;
            case 'l':
                options.language = optarg;
                break;
            case 'q':
                options.queueLength = examples::NumberOption("--queue", optarg, 1, 1000);
                break;
            case 's':
                options.limitSeconds = examples::NumberOption("--limit", optarg, 1, 3600);
                break;
            case 'h':
                PrintHelp();
                std::exit(0);
            default:
                std::exit(examples::USAGE_ERROR);
        }
    }
    examples::RefuseOtherWords(count, arguments);
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
