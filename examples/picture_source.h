// Where a camera's pictures come from: a V4L2 camera, a video file, a picture, or a folder of pictures.
#pragma once

#include <cstddef>
#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>
#include <string>
#include <vector>

namespace face_camera {

class PictureSource {
public:
    // Throws a std::runtime_error if there is no such source, or if it has no pictures.
    explicit PictureSource(const std::string& path);

    // The next picture. Videos and folders begin anew behind their end. Throws a std::runtime_error if no
    // picture comes, such as from a camera that was unplugged.
    cv::Mat Next();

    // "the camera /dev/video0", for people.
    std::string Name() const;

private:
    enum class Kind { CAMERA, VIDEO, PICTURES };

    void OpenVideo();
    cv::Mat NextOfVideo();
    cv::Mat NextOfFiles();

    std::string mPath;
    Kind mKind = Kind::PICTURES;
    std::vector<std::string> mFiles;  // of PICTURES
    std::size_t mNextFile = 0;
    cv::Mat mOnly;  // of a single file, which is read once
    cv::VideoCapture mVideo;
};

}  // namespace face_camera
