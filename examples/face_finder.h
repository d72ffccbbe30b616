// Finds faces in pictures, and makes of them what the services send.
#pragma once

#include <cstddef>
#include <opencv2/core.hpp>
#include <opencv2/objdetect.hpp>
#include <string>
#include <vector>

namespace face_camera {

class FaceFinder {
public:
    // cascade: an XML file of the package opencv-data. Throws a std::runtime_error if it cannot be read.
    explicit FaceFinder(const std::string& cascade);

    std::vector<cv::Rect> Find(const cv::Mat& picture);

private:
    cv::CascadeClassifier mCascade;
};

// The longest side becomes at most this long.
cv::Mat Shrunk(const cv::Mat& picture, int longestSide);

void Draw(cv::Mat& picture, const std::vector<cv::Rect>& faces);

// Of at most so many bytes: with less quality, and smaller if that is not enough.
std::vector<unsigned char> Jpeg(const cv::Mat& picture, std::size_t mostBytes);

// {"time":"2026-01-31T11:03:04.123Z","width":512,"height":512,"faces":[{"x":1,"y":2,"width":3,"height":4}]}
std::string Json(const cv::Size& size, const std::vector<cv::Rect>& faces);

}  // namespace face_camera
