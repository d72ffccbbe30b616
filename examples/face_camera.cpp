// A camera that looks for faces: the service "picture" sends JPEG pictures with a box round each face, the
// service "faces" where they are, as JSON. Without subscribers it takes no pictures and looks for nothing.
#include <getopt.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <lumora.hpp>
#include <opencv2/core/utils/logger.hpp>
#include <string>

#include "face_finder.h"
#include "options.h"
#include "picture_source.h"

namespace face_camera {
namespace {

const char PICTURE_SERVICE[] = "picture";
const char FACES_SERVICE[] = "faces";

struct Options {
    std::string deviceType = "face-camera";
    std::string source = "/dev/video0";
    std::string cascade = "/usr/share/opencv4/haarcascades/haarcascade_frontalface_default.xml";
    int rate = 10;
    int side = 1280;
};

// Every thread made from here on has them blocked too, so that only Ended gets them.
sigset_t BlockEndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

// Waits for a signal until then, and tells whether one came.
bool Ended(const sigset_t& signals, std::chrono::steady_clock::time_point until) {
    using std::chrono::duration_cast;
    using std::chrono::nanoseconds;
    using std::chrono::seconds;
    using std::chrono::steady_clock;
    const auto left = std::max(duration_cast<nanoseconds>(until - steady_clock::now()), nanoseconds(0));
    const auto whole = duration_cast<seconds>(left);
    timespec time = {};
    time.tv_sec = static_cast<time_t>(whole.count());
    time.tv_nsec = static_cast<long>((left - whole).count());
    int number = 0;
    do {
        number = sigtimedwait(&signals, nullptr, &time);
        // A debugger interrupts it without a signal of ours.
    } while (number < 0 && errno == EINTR);
    return number > 0;
}

class FaceCamera {
public:
    explicit FaceCamera(const Options& options)
        : mOptions(options), mSource(options.source), mFinder(options.cascade), mDevice(options.deviceType) {
        mDevice.OnSubscribe([](const lumora::Subscription& begun) {
            std::printf("client %d subscribed to %s\n", begun.client, std::string(begun.service).c_str());
        });
        mDevice.OnUnsubscribe([](const lumora::Subscription& ended) {
            std::printf("client %d left %s\n", ended.client, std::string(ended.service).c_str());
        });
        mDevice.Offer(PICTURE_SERVICE).Offer(FACES_SERVICE).Start();
    }

    void Run(const sigset_t& endSignals) {
        std::printf("ready: %s shows %s\n", mOptions.deviceType.c_str(), mSource.Name().c_str());
        const auto period = std::chrono::microseconds(std::chrono::seconds(1)) / mOptions.rate;
        auto next = std::chrono::steady_clock::now();
        while (!Ended(endSignals, next)) {
            // A picture that took too long is not made up for.
            next = std::max(next + period, std::chrono::steady_clock::now());
            const bool picture = !mDevice.Subscribers(PICTURE_SERVICE).empty();
            const bool faces = !mDevice.Subscribers(FACES_SERVICE).empty();
            if (picture || faces) {
                SendOne(picture, faces);
            }
        }
        std::printf("ended; looked at %lu pictures\n", mLookedAt);
    }

private:
    void SendOne(bool withPicture, bool withFaces) {
        cv::Mat picture = Shrunk(mSource.Next(), mOptions.side);
        const std::vector<cv::Rect> faces = mFinder.Find(picture);
        ++mLookedAt;
        if (withFaces) {
            Send(FACES_SERVICE, Json(picture.size(), faces));
        }
        if (withPicture) {
            Draw(picture, faces);
            Send(PICTURE_SERVICE, Jpeg(picture, LUM_MAX_SERVER_DATA_LENGTH));
        }
    }

    // A block that no client takes any more is no reason to end.
    template <typename Block>
    void Send(const char* service, const Block& block) {
        std::error_code error;
        if (!mDevice.Send(service, block, error)) {
            std::fprintf(stderr, "%zu bytes of %s were not sent: %s\n", block.size(), service,
                         error.message().c_str());
        }
    }

    const Options mOptions;
    PictureSource mSource;
    FaceFinder mFinder;
    unsigned long mLookedAt = 0;
    lumora::Device mDevice;
};

void PrintHelp() {
    std::puts(
        "Usage: face_camera [OPTION...]\n"
        "A Lumora device that shows pictures and finds the faces in them. Its service \"picture\" sends "
        "JPEG\n"
        "pictures with a box round each face, its service \"faces\" the boxes as JSON. SIGINT or SIGTERM "
        "ends it.\n"
        "\n"
        "  --type TYPE       the device type that clients search for (face-camera)\n"
        "  --from PATH       a camera, a video file, a picture or a folder of pictures (/dev/video0)\n"
        "  --rate NUMBER     pictures a second (10)\n"
        "  --side PIXELS     larger pictures are made smaller, to this longest side (1280)\n"
        "  --cascade FILE    what a face looks like; the package opencv-data has several\n"
        "  --help            this text\n"
        "\n"
        "Exit codes: 0 ended by a signal, 1 it could not start or go on, 2 wrong usage.");
}

Options ParseOptions(int count, char** arguments) {
    const option known[] = {{"type", required_argument, nullptr, 't'},
                            {"from", required_argument, nullptr, 'f'},
                            {"rate", required_argument, nullptr, 'r'},
                            {"side", required_argument, nullptr, 's'},
                            {"cascade", required_argument, nullptr, 'c'},
                            {"help", no_argument, nullptr, 'h'},
                            {nullptr, 0, nullptr, 0}};
    Options options;
    for (int name = 0; (name = getopt_long(count, arguments, "", known, nullptr)) != -1;) {
        switch (name) {
            case 't':
                options.deviceType = examples::TypeOption(optarg);
                break;
            case 'f':
                options.source = optarg;
                break;
            case 'r':
                options.rate = examples::NumberOption("--rate", optarg, 1, 100);
                break;
            case 's':
                options.side = examples::NumberOption("--side", optarg, 64, 8192);
                break;
            case 'c':
                options.cascade = optarg;
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
}  // namespace face_camera

int main(int count, char** arguments) try {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // a reader behind a pipe sees each line at once
    const face_camera::Options options = face_camera::ParseOptions(count, arguments);
    // OpenCV's warnings name its own sources; failures are told here.
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
    const sigset_t endSignals = face_camera::BlockEndSignals();
    face_camera::FaceCamera(options).Run(endSignals);
} catch (const std::exception& problem) {
    std::fprintf(stderr, "face_camera: %s\n", problem.what());
    return 1;
}
