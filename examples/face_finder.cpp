#include "face_finder.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>

namespace face_camera {

namespace {

// The search in a picture of this size takes some 20 ms, and finds faces from a twelfth of it on.
constexpr int SEARCH_SIDE = 480;
constexpr int LEAST_FACE = SEARCH_SIDE / 12;

std::string Now() {
    using std::chrono::milliseconds;
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto ms = std::chrono::duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm parts = {};
    gmtime_r(&seconds, &parts);
    char day[32];
    char text[64];
    std::strftime(day, sizeof(day), "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text, sizeof(text), "%s.%03dZ", day, static_cast<int>(ms));
    return text;
}

}  // namespace

FaceFinder::FaceFinder(const std::string& cascade) {
    bool loaded = false;
    try {
        loaded = mCascade.load(cascade);
    } catch (const cv::Exception&) {
        // Thrown for a file that is no XML at all; the message names places in OpenCV's sources only.
    }
    if (!loaded) {
        throw std::runtime_error(cascade + " is no cascade that can be read; opencv-data has some");
    }
}

std::vector<cv::Rect> FaceFinder::Find(const cv::Mat& picture) {
    // A face that has several matches near each other is one; single matches are mostly errors.
    constexpr double STEP = 1.1;
    constexpr int LEAST_MATCHES = 8;
    cv::Mat grey;
    cv::cvtColor(Shrunk(picture, SEARCH_SIDE), grey, cv::COLOR_BGR2GRAY);
    cv::equalizeHist(grey, grey);
    std::vector<cv::Rect> faces;
    mCascade.detectMultiScale(grey, faces, STEP, LEAST_MATCHES, 0, cv::Size(LEAST_FACE, LEAST_FACE));
    const double scale = static_cast<double>(picture.cols) / grey.cols;
    for (cv::Rect& face : faces) {
        face = cv::Rect(cvRound(face.x * scale), cvRound(face.y * scale), cvRound(face.width * scale),
                        cvRound(face.height * scale)) &
               cv::Rect(cv::Point(0, 0), picture.size());
    }
    return faces;
}

cv::Mat Shrunk(const cv::Mat& picture, int longestSide) {
    const int side = std::max(picture.cols, picture.rows);
    if (side <= longestSide) {
        return picture;
    }
    const double scale = static_cast<double>(longestSide) / side;
    // A very long and narrow picture must keep a pixel of width.
    const cv::Size size(std::max(cvRound(picture.cols * scale), 1),
                        std::max(cvRound(picture.rows * scale), 1));
    cv::Mat shrunk;
    cv::resize(picture, shrunk, size, 0, 0, cv::INTER_AREA);
    return shrunk;
}

void Draw(cv::Mat& picture, const std::vector<cv::Rect>& faces) {
    const cv::Scalar green(0, 255, 0);
    const int thickness = std::max(2, picture.cols / 250);
    for (const cv::Rect& face : faces) {
        cv::rectangle(picture, face, green, thickness);
    }
}

std::vector<unsigned char> Jpeg(const cv::Mat& picture, std::size_t mostBytes) {
    constexpr int BEST = 85;
    constexpr int WORST = 25;
    constexpr int STEP = 20;
    cv::Mat shown = picture;
    std::vector<unsigned char> bytes;
    while (true) {
        for (int quality = BEST; quality >= WORST; quality -= STEP) {
            cv::imencode(".jpg", shown, bytes, {cv::IMWRITE_JPEG_QUALITY, quality});
            if (bytes.size() <= mostBytes) {
                return bytes;
            }
        }
        shown = Shrunk(shown, std::max(shown.cols, shown.rows) / 2);
    }
}

std::string Json(const cv::Size& size, const std::vector<cv::Rect>& faces) {
    std::string list;
    for (const cv::Rect& face : faces) {
        list += std::string(list.empty() ? "" : ",") + "{\"x\":" + std::to_string(face.x) +
                ",\"y\":" + std::to_string(face.y) + ",\"width\":" + std::to_string(face.width) +
                ",\"height\":" + std::to_string(face.height) + '}';
    }
    return "{\"time\":\"" + Now() + "\",\"width\":" + std::to_string(size.width) +
           ",\"height\":" + std::to_string(size.height) + ",\"faces\":[" + list + "]}";
}

}  // namespace face_camera
