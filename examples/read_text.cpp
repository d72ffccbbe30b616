// A client that has a picture read by a text-reading device, and says how long each step took.
#include <getopt.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include "options.h"
#include "text_answer.h"
#include "text_session.h"

namespace text_reader {
namespace {

using std::chrono::steady_clock;

struct Options {
    std::string deviceType = DEFAULT_DEVICE_TYPE;
    std::string language;  // empty: as the device has it
    int findSeconds = 5;
    int answerSeconds = 60;
    std::string picture;
};

// Prints what a step did, in the form of a table.
class Step {
public:
    explicit Step(const char* name) : mName(name) {}
    void Done(const std::string& result = "") const {
        const std::chrono::duration<double, std::milli> time = steady_clock::now() - mStart;
        std::printf("%-10s %8.1f ms  %s\n", mName, time.count(), result.c_str());
    }

private:
    const char* mName;
    steady_clock::time_point mStart = steady_clock::now();
};

// ---- The steps

// One byte more than can be sent is read at most.
std::string LoadPicture(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string bytes(LUM_MAX_CLIENT_DATA_LENGTH + 1, '\0');
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(file.gcount()));
    if (bytes.empty()) {
        throw Failure(BAD_PICTURE, path + " cannot be read or is empty; name a PNG or JPEG file");
    }
    if (bytes.size() > LUM_MAX_CLIENT_DATA_LENGTH) {
        throw Failure(BAD_PICTURE, path + " has more than 5 MiB (" +
                                       std::to_string(LUM_MAX_CLIENT_DATA_LENGTH) +
                                       " bytes), the most that can be sent; scale the picture down");
    }
    return bytes;
}

const char* NameOf(lumora::Transport transport) {
    switch (transport) {
        case lumora::Transport::UDP:
            return "udp";
        case lumora::Transport::TCP:
            return "tcp";
        case lumora::Transport::RTP:
            return "rtp";
        case lumora::Transport::NONE:
            break;
    }
    return "none";
}

void PrintServices(const std::vector<lumora::DeviceInfo>& devices) {
    for (const lumora::DeviceInfo& device : devices) {
        for (const lumora::Service& service : device.services) {
            std::printf("  %s: service \"%s\", transport %s, up to %u bytes\n", device.name.c_str(),
                        service.name.c_str(), NameOf(service.transport), service.outputBytes);
        }
    }
}

const lumora::DeviceInfo& FirstWithText(const std::vector<lumora::DeviceInfo>& devices) {
    for (const lumora::DeviceInfo& device : devices) {
        if (device.Offers(SERVICE_NAME)) {
            return device;
        }
    }
    throw Failure(NO_DEVICE, std::string("none of the devices has the service \"") + SERVICE_NAME +
                                 "\"; search for another type with --type");
}

void SetLanguage(TextSession& session, const Options& options) {
    const Step step("language");
    session.SendCommand(SET_LANGUAGE_COMMAND, options.language);
    step.Done(session.Await(Answer::Kind::NOTE, options.answerSeconds).text);
}

Answer ReadPicture(TextSession& session, const std::string& picture, const Options& options) {
    const Step answering("answer");
    const Step sending("send");
    session.Send(picture);
    sending.Done(std::to_string(picture.size()) + " bytes");
    Answer answer = session.Await(Answer::Kind::TEXT, options.answerSeconds);
    answering.Done(std::to_string(answer.milliseconds) + " ms of it to read the picture");
    return answer;
}

int Run(const Options& options) {
    const std::string picture = LoadPicture(options.picture);
    const Step joining("join");
    TextSession session;
    joining.Done();

    const Step finding("find");
    const std::vector<lumora::DeviceInfo> devices = session.Find(options.deviceType, options.findSeconds);
    finding.Done(std::to_string(devices.size()) + (devices.size() == 1 ? " device" : " devices"));
    PrintServices(devices);

    const lumora::DeviceInfo& device = FirstWithText(devices);
    const Step connecting("connect");
    session.Connect(device);
    connecting.Done(device.name);

    const Step asking("versions");
    const std::string versions = session.Versions();
    asking.Done(versions);

    const Step subscribing("subscribe");
    session.Subscribe();
    subscribing.Done(SERVICE_NAME);

    if (!options.language.empty()) {
        SetLanguage(session, options);
    }
    const Answer answer = ReadPicture(session, picture, options);
    std::printf("text:\n%s", answer.text.c_str());
    return SUCCESS;
}

// ---- The command line

void PrintHelp() {
    std::puts(
        "Usage: read_text [OPTION...] PICTURE\n"
        "Has a text-reading device read a PNG or JPEG picture of up to 5 MiB, and prints the text.\n"
        "\n"
        "  --type TYPE        the device type to search for (text-reader)\n"
        "  --language NAME    has the device read another language first, such as deu or eng+deu\n"
        "  --find SECONDS     how long to search (5)\n"
        "  --timeout SECONDS  how long to wait for an answer (60)\n"
        "  --help             this text\n"
        "\n"
        "Exit codes: 0 the text was printed, 1 a call of the library failed, 2 wrong usage,\n"
        "3 the picture cannot be sent, 4 no device, 5 no answer, 6 the device refused.");
}

Options ParseOptions(int count, char** arguments) {
    const option known[] = {
        {"type", required_argument, nullptr, 't'}, {"language", required_argument, nullptr, 'l'},
        {"find", required_argument, nullptr, 'f'}, {"timeout", required_argument, nullptr, 's'},
        {"help", no_argument, nullptr, 'h'},       {nullptr, 0, nullptr, 0}};
    constexpr int DAY = 86400;
    Options options;
    for (int name = 0; (name = getopt_long(count, arguments, "", known, nullptr)) != -1;) {
        switch (name) {
            case 't':
                options.deviceType = optarg;
                break;
            case 'l':
                options.language = optarg;
                break;
            case 'f':
                options.findSeconds = examples::NumberOption("--find", optarg, 0, DAY);
                break;
            case 's':
                options.answerSeconds = examples::NumberOption("--timeout", optarg, 1, DAY);
                break;
            case 'h':
                PrintHelp();
                std::exit(SUCCESS);
            default:
                std::exit(WRONG_USAGE);
        }
    }
    if (optind + 1 != count) {
        std::fprintf(stderr, "read_text takes one picture; see --help\n");
        std::exit(WRONG_USAGE);
    }
    options.picture = arguments[optind];
    return options;
}

}  // namespace
}  // namespace text_reader

int main(int count, char** arguments) try {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    return text_reader::Run(text_reader::ParseOptions(count, arguments));
} catch (const text_reader::Failure& failure) {
    std::fprintf(stderr, "read_text: %s\n", failure.what());
    return failure.Code();
} catch (const std::exception& problem) {
    std::fprintf(stderr, "read_text: %s\n", problem.what());
    return text_reader::LIBRARY_FAILED;
}
